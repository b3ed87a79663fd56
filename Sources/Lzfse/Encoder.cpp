#include "Lzfse/BitStream.h"
#include "Lzfse/Format.h"
#include "Lzfse/Fse.h"
#include "Lzfse/Lzfse.h"
#include "Lzfse/Lzvn.h"

#include <array>
#include <bit>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <memory>
#include <optional>

// The LZFSE encoder is an LZ77 parser feeding blocks of (literals, match) triples to the FSE
// coder.
//
// Parsing: every position is hashed by its first 4 bytes into a table of 4-way buckets that keep
// the 4 bytes beside each position, so most candidates are refused without touching the input.
// The longest candidate is grown backwards over pending literals. A long match is taken at once;
// a shorter one is held back one step while the next positions are searched, and when a later
// match overlaps it the longer of the two wins. Positions inside a taken match are hashed but not
// searched.
//
// Blocks: triples and their literals gather until one more would break a block limit; the block
// is then coded as `bvx2`, or stored as `bvx-` when that is smaller (data that doesn't compress).
// Matches reach freely into earlier blocks, as decoders keep the whole history.

namespace morvane::lzfse {

namespace {

using namespace format;

constexpr int hashBits = 14;
constexpr int hashWays = 4;
constexpr std::size_t goodMatch = 40;
constexpr std::size_t prefetchDistance = 8;
constexpr std::size_t maxMatchLength = 100 * maxM;
constexpr std::size_t literalFlush = 8 * maxL;
// The block limits, kept a little under the decoders' so that a block never ends up full.
constexpr std::size_t blockMatchLimit = maxMatchesPerBlock - 8;
constexpr std::size_t blockLiteralLimit = maxLiteralsPerBlock - 16;
constexpr std::size_t lzvnThreshold = 4096;
constexpr std::size_t rawThreshold = 8;
// Positions in the hash table are 32-bit, so longer inputs are coded in independent segments.
constexpr std::size_t segmentSize = std::size_t{1} << 30;

struct alignas(32) Bucket {
    std::array<std::int32_t, hashWays> position;
    std::array<std::uint32_t, hashWays> value;
};

struct Match {
    std::size_t begin = 0;
    std::size_t end = 0;
    std::size_t ref = 0; // where the copied bytes start

    std::size_t length() const { return end - begin; }
};

// Bit w set when way w of the bucket holds `value`.
unsigned matchingWays(const Bucket& bucket, std::uint32_t value) {
#if defined(__SSE2__)
    const __m128i ways = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bucket.value.data()));
    return static_cast<unsigned>(
        _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(ways, _mm_set1_epi32(static_cast<int>(value))))));
#else
    unsigned ways = 0;
    for (int w = 0; w < hashWays; ++w)
        ways |= unsigned{bucket.value[w] == value} << w;
    return ways;
#endif
}

// Puts the position first in its bucket, dropping the oldest.
void insert(Bucket& bucket, std::int32_t position, std::uint32_t value) {
#if defined(__SSE2__)
    auto* positions = reinterpret_cast<__m128i*>(bucket.position.data());
    auto* values = reinterpret_cast<__m128i*>(bucket.value.data());
    _mm_storeu_si128(positions,
                     _mm_or_si128(_mm_slli_si128(_mm_loadu_si128(positions), 4), _mm_cvtsi32_si128(position)));
    _mm_storeu_si128(
        values, _mm_or_si128(_mm_slli_si128(_mm_loadu_si128(values), 4), _mm_cvtsi32_si128(static_cast<int>(value))));
#else
    for (int w = hashWays - 1; w > 0; --w) {
        bucket.position[w] = bucket.position[w - 1];
        bucket.value[w] = bucket.value[w - 1];
    }
    bucket.position[0] = position;
    bucket.value[0] = value;
#endif
}

std::uint32_t hash4(std::uint32_t value) { return (value * 2654435761u) >> (32 - hashBits); }

// Length of the common prefix of a and b, up to `limit` bytes; both stay readable that far.
std::size_t commonLength(const std::uint8_t* a, const std::uint8_t* b, std::size_t limit) {
    std::size_t n = 0;
    while (n + 8 <= limit) {
        const std::uint64_t difference = load64(a + n) ^ load64(b + n);
        if (difference != 0) return n + static_cast<std::size_t>(std::countr_zero(difference)) / 8;
        n += 8;
    }
    while (n < limit && a[n] == b[n])
        ++n;
    return n;
}

int lSymbol(std::uint32_t l) { return l < 16 ? static_cast<int>(l) : l < 20 ? 16 : l < 28 ? 17 : l < 60 ? 18 : 19; }
int mSymbol(std::uint32_t m) { return m < 16 ? static_cast<int>(m) : m < 24 ? 16 : m < 56 ? 17 : m < 312 ? 18 : 19; }
// Symbols come in groups of 4 sharing an extra-bit count g; group g starts at 4 * (2^g - 1).
// (d + 4) >> 2 is at least 1 for any distance; `| 1` only makes that plain.
int dSymbol(std::uint32_t d) {
    const int g = std::bit_width(((d + 4) >> 2) | 1u) - 1;
    return 4 * g + static_cast<int>((d - 4 * ((1u << g) - 1)) >> g);
}

// Appends a frequency in the header's prefix code.
void writeFrequency(BitWriter& writer, std::uint32_t f) {
    if (f < 2)
        writer.write(f << 1, 2);
    else if (f < 4)
        writer.write(1 | ((f - 2) << 2), 3);
    else if (f < 8)
        writer.write(3 | ((f - 4) << 3), 5);
    else if (f < 24)
        writer.write(7 | ((f - 8) << 4), 8);
    else
        writer.write(15 | ((f - 24) << 4), 14);
    writer.flush();
}

// One FSE coder: the symbol table and the running state, which starts at 0.
struct FseCoder {
    std::vector<fse::EncoderSymbol> table;
    std::uint32_t state = 0;

    FseCoder(const std::uint16_t* frequencies, int symbols, int stateBits) : table(symbols) {
        fse::buildEncoderTable(frequencies, symbols, stateBits, table.data());
    }

    // Branch-free: which way a state goes is data, and mispredicting it cost more than the coding.
    void encode(BitWriter& writer, int symbol) {
        const fse::EncoderSymbol& e = table[symbol];
        const int low = state < e.threshold;
        const int bits = e.bits - low;
        writer.write(state & ((1u << bits) - 1), bits);
        state = static_cast<std::uint32_t>(e.delta[low] + static_cast<int>(state >> bits));
    }
};

template <std::size_t N>
void countInto(std::array<std::uint32_t, N>& counts, const std::vector<std::uint8_t>& symbols) {
    // Four partial counts, so that runs of one symbol don't wait on their own increments.
    std::array<std::array<std::uint32_t, N>, 4> partial{};
    std::size_t i = 0;
    for (; i + 4 <= symbols.size(); i += 4) {
        ++partial[0][symbols[i]];
        ++partial[1][symbols[i + 1]];
        ++partial[2][symbols[i + 2]];
        ++partial[3][symbols[i + 3]];
    }
    for (; i < symbols.size(); ++i)
        ++partial[0][symbols[i]];
    for (std::size_t s = 0; s < N; ++s)
        counts[s] = partial[0][s] + partial[1][s] + partial[2][s] + partial[3][s];
}

class FseEncoder {
public:
    FseEncoder(const std::uint8_t* src, std::size_t size, std::vector<std::uint8_t>& out)
        : src_(src), size_(size), out_(out), table_(std::size_t{1} << hashBits) {
        for (Bucket& bucket : table_) {
            bucket.position.fill(-1);
            bucket.value.fill(0);
        }
        literals_.reserve(maxLiteralsPerBlock + 4);
        l_.reserve(maxMatchesPerBlock);
        m_.reserve(maxMatchesPerBlock);
        d_.reserve(maxMatchesPerBlock);
    }

    void run();

private:
    void emit(const Match& match);
    void pushTriple(std::size_t l, std::size_t m, std::size_t d);
    void flushBlock();
    void writeFseBlock();

    const std::uint8_t* const src_;
    const std::size_t size_;
    std::vector<std::uint8_t>& out_;
    std::vector<Bucket> table_;

    std::size_t literalStart_ = 0; // first byte not yet covered by a triple
    std::size_t blockStart_ = 0;   // first byte of the block being gathered
    std::size_t skipUntil_ = 0;    // positions before this are inside a taken match
    std::vector<std::uint8_t> literals_;
    std::vector<std::uint32_t> l_, m_, d_;
};

void FseEncoder::run() {
    std::optional<Match> pending;
    // The last 8 bytes are always literals, so every read below stays inside the input.
    const std::size_t searchEnd = size_ > rawThreshold ? size_ - rawThreshold : 0;
    // The table is far bigger than the first-level cache: each position asks for a later
    // position's bucket, so that it is there when its turn comes.
    const auto prefetch = [&](std::size_t i) {
        __builtin_prefetch(&table_[hash4(load32(src_ + std::min(i + prefetchDistance, size_ - 4)))]);
    };
    for (std::size_t i = 0; i < searchEnd; ++i) {
        if (i < skipUntil_) {
            // Inside a taken match positions are only recorded: a loop of independent inserts,
            // whose cache misses overlap.
            for (const std::size_t stop = std::min(skipUntil_, searchEnd); i < stop; ++i) {
                prefetch(i);
                const std::uint32_t value = load32(src_ + i);
                insert(table_[hash4(value)], static_cast<std::int32_t>(i), value);
            }
            if (i == searchEnd) break;
        }
        prefetch(i);
        const std::uint32_t value = load32(src_ + i);
        Bucket& bucket = table_[hash4(value)];
        const std::size_t limit = std::min(searchEnd - i, maxMatchLength);
        std::size_t bestLength = 0;
        std::size_t bestRef = 0;
        if (limit >= 4) {
            for (unsigned ways = matchingWays(bucket, value); ways != 0; ways &= ways - 1) {
                const int w = std::countr_zero(ways);
                if (bucket.position[w] < 0) continue;
                const std::size_t ref = static_cast<std::size_t>(bucket.position[w]);
                if (i - ref > maxD) continue;
                const std::size_t length = 4 + commonLength(src_ + i + 4, src_ + ref + 4, limit - 4);
                if (length > bestLength) {
                    bestLength = length;
                    bestRef = ref;
                }
            }
        }
        insert(bucket, static_cast<std::int32_t>(i), value);

        if (bestLength == 0) {
            if (i - literalStart_ > literalFlush) {
                if (pending) {
                    emit(*pending);
                    pending.reset();
                } else {
                    pushTriple(maxL, 0, 1);
                }
            }
            continue;
        }

        Match incoming{i, i + bestLength, bestRef};
        while (incoming.begin > literalStart_ && incoming.ref > 0 && incoming.length() < maxMatchLength &&
               src_[incoming.begin - 1] == src_[incoming.ref - 1]) {
            --incoming.begin;
            --incoming.ref;
        }
        if (pending && pending->end <= incoming.begin) {
            emit(*pending);
            pending.reset();
        }
        if (pending) {
            emit(pending->length() >= incoming.length() ? *pending : incoming);
            pending.reset();
        } else if (incoming.length() >= goodMatch) {
            emit(incoming);
        } else {
            pending = incoming;
        }
    }
    if (pending) emit(*pending);

    std::size_t rest = size_ - literalStart_;
    while (rest > maxL) {
        pushTriple(maxL, 0, 1);
        rest -= maxL;
    }
    if (rest > 0) pushTriple(rest, 0, 1);
    flushBlock();
}

void FseEncoder::emit(const Match& match) {
    std::size_t l = match.begin - literalStart_;
    std::size_t m = match.length();
    const std::size_t d = match.begin - match.ref;
    // Literal-only triples carry distance 1, which is always in range once a literal is out.
    while (l > maxL) {
        pushTriple(maxL, 0, 1);
        l -= maxL;
    }
    while (m > maxM) {
        pushTriple(l, maxM, d);
        l = 0;
        m -= maxM;
    }
    pushTriple(l, m, d);
    skipUntil_ = match.end;
}

void FseEncoder::pushTriple(std::size_t l, std::size_t m, std::size_t d) {
    if (l_.size() >= blockMatchLimit || literals_.size() + l > blockLiteralLimit) flushBlock();
    literals_.insert(literals_.end(), src_ + literalStart_, src_ + literalStart_ + l);
    l_.push_back(static_cast<std::uint32_t>(l));
    m_.push_back(static_cast<std::uint32_t>(m));
    d_.push_back(static_cast<std::uint32_t>(d));
    literalStart_ += l + m;
}

void FseEncoder::flushBlock() {
    if (l_.empty()) return;
    const std::size_t rawBytes = literalStart_ - blockStart_;
    const std::size_t mark = out_.size();
    writeFseBlock();
    if (out_.size() - mark >= rawBytes + rawHeaderSize) {
        out_.resize(mark + rawHeaderSize);
        store32(out_.data() + mark, magicRaw);
        store32(out_.data() + mark + 4, static_cast<std::uint32_t>(rawBytes));
        out_.insert(out_.end(), src_ + blockStart_, src_ + literalStart_);
    }
    blockStart_ = literalStart_;
    literals_.clear();
    l_.clear();
    m_.clear();
    d_.clear();
}

void FseEncoder::writeFseBlock() {
    const std::size_t matchCount = l_.size();
    const std::size_t rawBytes = literalStart_ - blockStart_;
    while (literals_.size() % 4 != 0)
        literals_.push_back(0);
    const std::size_t literalCount = literals_.size();

    // A distance equal to the previous triple's is coded as 0, "the same again".
    std::vector<std::uint8_t> lSymbols(matchCount), mSymbols(matchCount), dSymbols(matchCount);
    std::vector<std::uint32_t> dCoded(matchCount);
    std::uint32_t previous = 0;
    for (std::size_t t = 0; t < matchCount; ++t) {
        dCoded[t] = d_[t] == previous ? 0 : d_[t];
        previous = d_[t];
        lSymbols[t] = static_cast<std::uint8_t>(lSymbol(l_[t]));
        mSymbols[t] = static_cast<std::uint8_t>(mSymbol(m_[t]));
        dSymbols[t] = static_cast<std::uint8_t>(dSymbol(dCoded[t]));
    }

    std::array<std::uint16_t, frequencyCount> frequencies{};
    std::uint16_t* const lFrequencies = frequencies.data();
    std::uint16_t* const mFrequencies = lFrequencies + format::lSymbols;
    std::uint16_t* const dFrequencies = mFrequencies + format::mSymbols;
    std::uint16_t* const literalFrequencies = dFrequencies + format::dSymbols;
    {
        std::array<std::uint32_t, format::lSymbols> lCounts{};
        std::array<std::uint32_t, format::mSymbols> mCounts{};
        std::array<std::uint32_t, format::dSymbols> dCounts{};
        std::array<std::uint32_t, literalSymbols> literalCounts{};
        countInto(lCounts, lSymbols);
        countInto(mCounts, mSymbols);
        countInto(dCounts, dSymbols);
        countInto(literalCounts, literals_);
        fse::normalise(lCounts.data(), format::lSymbols, lStates, lFrequencies);
        fse::normalise(mCounts.data(), format::mSymbols, mStates, mFrequencies);
        fse::normalise(dCounts.data(), format::dSymbols, dStates, dFrequencies);
        fse::normalise(literalCounts.data(), literalSymbols, literalStates, literalFrequencies);
    }

    // Room for the largest header and payloads this block can have, plus the writers' 8 bytes
    // of overreach; trimmed once the sizes are known.
    const std::size_t headerAt = out_.size();
    out_.resize(headerAt + packedMaxHeaderSize + literalCount * literalStateBits / 8 + matchCount * 7 + 32);
    std::size_t headerSize;
    {
        BitWriter writer(out_.data() + headerAt + packedFixedHeaderSize);
        for (const std::uint16_t f : frequencies)
            writeFrequency(writer, f);
        int unused;
        headerSize = packedFixedHeaderSize + writer.finish(unused);
    }

    // Both payloads are written back to front, so that decoders read them front to back.
    std::array<std::uint32_t, 4> literalStates{};
    int literalBits;
    std::size_t literalPayloadSize;
    {
        FseCoder coders[4] = {{literalFrequencies, literalSymbols, literalStateBits},
                              {literalFrequencies, literalSymbols, literalStateBits},
                              {literalFrequencies, literalSymbols, literalStateBits},
                              {literalFrequencies, literalSymbols, literalStateBits}};
        BitWriter writer(out_.data() + headerAt + headerSize);
        for (std::size_t i = literalCount; i > 0; i -= 4) {
            coders[3].encode(writer, literals_[i - 1]);
            coders[2].encode(writer, literals_[i - 2]);
            coders[1].encode(writer, literals_[i - 3]);
            coders[0].encode(writer, literals_[i - 4]);
            writer.flush();
        }
        literalPayloadSize = writer.finish(literalBits);
        for (int k = 0; k < 4; ++k)
            literalStates[k] = coders[k].state;
    }
    int lmdBits;
    std::size_t lmdPayloadSize;
    FseCoder lCoder(lFrequencies, format::lSymbols, lStateBits);
    FseCoder mCoder(mFrequencies, format::mSymbols, mStateBits);
    FseCoder dCoder(dFrequencies, format::dSymbols, dStateBits);
    {
        BitWriter writer(out_.data() + headerAt + headerSize + literalPayloadSize);
        // Decoders load 8 bytes from the end of this payload before reading anything.
        writer.write(0, 32);
        writer.flush();
        writer.write(0, 32);
        writer.flush();
        for (std::size_t t = matchCount; t-- > 0;) {
            const int ds = dSymbols[t], ms = mSymbols[t], ls = lSymbols[t];
            writer.write(dCoded[t] - dBase[ds], dExtraBits[ds]);
            dCoder.encode(writer, ds);
            writer.write(m_[t] - mBase[ms], mExtraBits[ms]);
            mCoder.encode(writer, ms);
            writer.write(l_[t] - lBase[ls], lExtraBits[ls]);
            lCoder.encode(writer, ls);
            writer.flush();
        }
        lmdPayloadSize = writer.finish(lmdBits);
    }
    out_.resize(headerAt + headerSize + literalPayloadSize + lmdPayloadSize);

    std::uint8_t* const header = out_.data() + headerAt;
    store32(header, magicPackedFse);
    store32(header + 4, static_cast<std::uint32_t>(rawBytes));
    store64(header + 8, literalCount | (std::uint64_t{literalPayloadSize} << 20) | (std::uint64_t{matchCount} << 40) |
                            (std::uint64_t(literalBits + 7) << 60));
    store64(header + 16, literalStates[0] | (std::uint64_t{literalStates[1]} << 10) |
                             (std::uint64_t{literalStates[2]} << 20) | (std::uint64_t{literalStates[3]} << 30) |
                             (std::uint64_t{lmdPayloadSize} << 40) | (std::uint64_t(lmdBits + 7) << 60));
    store64(header + 24, headerSize | (std::uint64_t{lCoder.state} << 32) | (std::uint64_t{mCoder.state} << 42) |
                             (std::uint64_t{dCoder.state} << 52));
}

void appendRawBlock(std::vector<std::uint8_t>& out, std::span<const std::uint8_t> bytes) {
    const std::size_t at = out.size();
    out.resize(at + rawHeaderSize);
    store32(out.data() + at, magicRaw);
    store32(out.data() + at + 4, static_cast<std::uint32_t>(bytes.size()));
    out.insert(out.end(), bytes.begin(), bytes.end());
}

} // namespace

std::vector<std::uint8_t> compress(std::span<const std::uint8_t> input) {
    std::vector<std::uint8_t> out;
    out.reserve(input.size() + input.size() / 64 + 64);
    if (input.size() < rawThreshold) {
        appendRawBlock(out, input);
    } else if (input.size() < lzvnThreshold) {
        const std::vector<std::uint8_t> payload = lzvn::encode(input.data(), input.size());
        if (payload.size() < input.size()) {
            out.resize(lzvnHeaderSize);
            store32(out.data(), magicLzvn);
            store32(out.data() + 4, static_cast<std::uint32_t>(input.size()));
            store32(out.data() + 8, static_cast<std::uint32_t>(payload.size()));
            out.insert(out.end(), payload.begin(), payload.end());
        } else {
            appendRawBlock(out, input);
        }
    } else {
        for (std::size_t at = 0; at < input.size(); at += segmentSize) {
            const std::size_t length = std::min(segmentSize, input.size() - at);
            // Heap-allocated: the hash table alone is half a megabyte.
            auto encoder = std::make_unique<FseEncoder>(input.data() + at, length, out);
            encoder->run();
        }
    }
    const std::size_t at = out.size();
    out.resize(at + 4);
    store32(out.data() + at, magicEnd);
    return out;
}

} // namespace morvane::lzfse

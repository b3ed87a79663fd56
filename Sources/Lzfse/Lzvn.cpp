#include "Lzfse/Lzvn.h"

#include "Lzfse/Format.h"

#include <array>
#include <cstring>
#include <optional>

// The encoder is a greedy LZ77 parser with one step of lazy matching: a match found is held back
// while the next positions are searched, and an overlapping longer one wins. Candidates come
// from a small hash of 3-byte prefixes and from the previous distance, which the format can
// reuse without spelling it out; they are ranked by the bytes they save after their opcode cost.

namespace morvane::lzfse::lzvn {

namespace {

constexpr int hashBits = 14;
constexpr int bucketWays = 4;
constexpr std::size_t minMatch = 3;
constexpr std::size_t goodMatch = 40;
constexpr std::size_t literalFlush = 400;
constexpr std::size_t maxLiteralChunk = 271;
constexpr std::size_t smallDistanceLimit = 1536;
constexpr std::size_t mediumDistanceLimit = 16384;
constexpr std::size_t maxMediumMatch = 34;

std::uint32_t hash3(const std::uint8_t* p) {
    const std::uint32_t v = p[0] | (p[1] << 8) | (p[2] << 16);
    return (v * 2654435761u) >> (32 - hashBits);
}

std::size_t matchLength(const std::uint8_t* a, const std::uint8_t* b, std::size_t limit) {
    std::size_t n = 0;
    while (n < limit && a[n] == b[n])
        ++n;
    return n;
}

struct Match {
    std::size_t begin = 0;
    std::size_t end = 0;
    std::size_t distance = 0;
    long gain = 0;
};

class Writer {
public:
    explicit Writer(const std::uint8_t* src) : src_(src) {}

    // Literals src[from, to) that no match follows.
    void literals(std::size_t from, std::size_t to) {
        while (from < to) {
            const std::size_t n = std::min(to - from, maxLiteralChunk);
            if (n >= 16) {
                out.push_back(0xE0);
                out.push_back(static_cast<std::uint8_t>(n - 16));
            } else {
                out.push_back(static_cast<std::uint8_t>(0xE0 | n));
            }
            out.insert(out.end(), src_ + from, src_ + from + n);
            from += n;
        }
    }

    // Literals src[from, match.begin), then the match.
    void match(std::size_t from, const Match& m) {
        // Up to 3 literals ride in the match opcode; longer runs go first on their own.
        const std::size_t folded = (m.begin - from) & 3;
        literals(from, m.begin - folded);
        from = m.begin - folded;
        const std::size_t l = folded;
        const std::size_t d = m.distance;
        std::size_t rest = m.end - m.begin;
        const std::size_t first = std::min(rest, 10 - 2 * l);
        const auto opcode = [&](std::uint8_t low) {
            return static_cast<std::uint8_t>((l << 6) | ((first - 3) << 3) | low);
        };

        if (d == previousDistance_ && l == 0) {
            // Match-only opcodes reuse the distance and cover the whole length below.
        } else if (d == previousDistance_) {
            out.push_back(opcode(6));
            rest -= first;
        } else if (d < smallDistanceLimit) {
            out.push_back(opcode(static_cast<std::uint8_t>(d >> 8)));
            out.push_back(static_cast<std::uint8_t>(d));
            rest -= first;
        } else if (d >= mediumDistanceLimit || rest <= first || rest > maxMediumMatch) {
            out.push_back(opcode(7));
            out.push_back(static_cast<std::uint8_t>(d));
            out.push_back(static_cast<std::uint8_t>(d >> 8));
            rest -= first;
        } else {
            const std::size_t m3 = rest - 3;
            const std::size_t w = (d << 2) | (m3 & 3);
            out.push_back(static_cast<std::uint8_t>(0xA0 | (l << 3) | (m3 >> 2)));
            out.push_back(static_cast<std::uint8_t>(w));
            out.push_back(static_cast<std::uint8_t>(w >> 8));
            rest = 0;
        }
        out.insert(out.end(), src_ + from, src_ + from + l);
        previousDistance_ = d;

        while (rest > 0) {
            const std::size_t n = std::min(rest, maxLiteralChunk);
            if (n >= 16) {
                out.push_back(0xF0);
                out.push_back(static_cast<std::uint8_t>(n - 16));
            } else {
                out.push_back(static_cast<std::uint8_t>(0xF0 | n));
            }
            rest -= n;
        }
    }

    void end() {
        out.push_back(0x06);
        out.insert(out.end(), 7, 0);
    }

    std::vector<std::uint8_t> out;

private:
    const std::uint8_t* const src_;
    std::size_t previousDistance_ = 0;
};

} // namespace

std::vector<std::uint8_t> encode(const std::uint8_t* src, std::size_t size) {
    Writer writer(src);
    writer.out.reserve(size + size / 16 + 16);
    std::size_t literalStart = 0;
    if (size > 8) {
        // Matches may run to the end, but none starts in the last 8 bytes.
        const std::size_t searchEnd = size - 8;
        std::vector<std::array<std::uint32_t, bucketWays>> table(std::size_t{1} << hashBits);
        for (auto& bucket : table)
            bucket.fill(std::uint32_t(-1));

        std::optional<Match> pending;
        std::size_t skipUntil = 0;
        std::size_t previousDistance = 0;
        const auto emit = [&](const Match& m) {
            writer.match(literalStart, m);
            literalStart = m.end;
            skipUntil = m.end;
            previousDistance = m.distance;
        };

        for (std::size_t i = 0; i < searchEnd; ++i) {
            auto& bucket = table[hash3(src + i)];
            std::optional<Match> incoming;
            if (i >= skipUntil) {
                const std::size_t limit = size - i;
                const auto consider = [&](std::size_t distance, long cost) {
                    const std::size_t length = matchLength(src + i, src + i - distance, limit);
                    if (length < minMatch) return;
                    const long gain = static_cast<long>(length) - cost;
                    if (!incoming || gain > incoming->gain) incoming = Match{i, i + length, distance, gain};
                };
                if (previousDistance != 0 && previousDistance <= i) consider(previousDistance, 1);
                for (const std::uint32_t position : bucket) {
                    if (position >= i || i - position > format::maxLzvnD || i - position == previousDistance) continue;
                    const std::size_t distance = i - position;
                    consider(distance, distance < smallDistanceLimit ? 2 : 3);
                }
            }
            for (int w = bucketWays - 1; w > 0; --w)
                bucket[w] = bucket[w - 1];
            bucket[0] = static_cast<std::uint32_t>(i);

            if (incoming && incoming->gain <= 0) incoming.reset();
            if (incoming) {
                if (pending && pending->end <= incoming->begin) {
                    emit(*pending);
                    pending.reset();
                }
                if (pending) {
                    emit(pending->gain >= incoming->gain ? *pending : *incoming);
                    pending.reset();
                } else if (incoming->end - incoming->begin >= goodMatch) {
                    emit(*incoming);
                } else {
                    pending = incoming;
                }
            } else if (!pending && i >= skipUntil && i - literalStart >= literalFlush) {
                writer.literals(literalStart, literalStart + maxLiteralChunk);
                literalStart += maxLiteralChunk;
            }
        }
        if (pending) emit(*pending);
    }
    writer.literals(literalStart, size);
    writer.end();
    return std::move(writer.out);
}

void decode(const std::uint8_t* payload, std::size_t payloadSize, const std::uint8_t* outStart, std::uint8_t* out,
            std::uint8_t* outEnd) {
    const std::uint8_t* ip = payload;
    const std::uint8_t* const ipEnd = payload + payloadSize;
    std::size_t previousDistance = 0;

    const auto need = [&](std::size_t bytes) {
        if (static_cast<std::size_t>(ipEnd - ip) < bytes) damaged("an LZVN block is truncated");
    };
    const auto copyLiterals = [&](std::size_t count) {
        need(count);
        if (static_cast<std::size_t>(outEnd - out) < count) damaged("an LZVN block produces more than its size");
        std::memcpy(out, ip, count);
        ip += count;
        out += count;
    };
    const auto copyMatch = [&](std::size_t distance, std::size_t length) {
        if (distance == 0 || distance > static_cast<std::size_t>(out - outStart))
            damaged("an LZVN match reaches before the start of the data");
        if (static_cast<std::size_t>(outEnd - out) < length) damaged("an LZVN block produces more than its size");
        format::copyMatch(out, distance, length);
        out += length;
        previousDistance = distance;
    };

    for (;;) {
        need(1);
        const std::uint8_t op = ip[0];
        const std::size_t l = op >> 6;
        const std::size_t m = ((op >> 3) & 7) + 3;
        if (op >= 0xF0) {
            std::size_t length = op & 15;
            if (op == 0xF0) {
                need(2);
                length = ip[1] + 16u;
                ip += 2;
            } else {
                ip += 1;
            }
            copyMatch(previousDistance, length);
        } else if (op >= 0xE0) {
            std::size_t length = op & 15;
            if (op == 0xE0) {
                need(2);
                length = ip[1] + 16u;
                ip += 2;
            } else {
                ip += 1;
            }
            copyLiterals(length);
        } else if (op >= 0xA0 && op < 0xC0) {
            need(3);
            const std::size_t w = ip[1] | (ip[2] << 8);
            ip += 3;
            copyLiterals((op >> 3) & 3);
            copyMatch(w >> 2, (((op & 7) << 2) | (w & 3)) + 3);
        } else if ((op >= 0x70 && op < 0x80) || op >= 0xD0) {
            damaged("an LZVN block holds an undefined opcode");
        } else if ((op & 7) == 7) {
            need(3);
            const std::size_t distance = ip[1] | (ip[2] << 8);
            ip += 3;
            copyLiterals(l);
            copyMatch(distance, m);
        } else if ((op & 7) == 6) {
            if (l != 0) {
                ip += 1;
                copyLiterals(l);
                copyMatch(previousDistance, m);
            } else if (op == 0x06) {
                need(8);
                if (ip + 8 != ipEnd || out != outEnd) damaged("an LZVN block ends before or after its size");
                return;
            } else if (op == 0x0E || op == 0x16) {
                ip += 1;
            } else {
                damaged("an LZVN block holds an undefined opcode");
            }
        } else {
            need(2);
            const std::size_t distance = ((op & 7) << 8) | ip[1];
            ip += 2;
            copyLiterals(l);
            copyMatch(distance, m);
        }
    }
}

} // namespace morvane::lzfse::lzvn

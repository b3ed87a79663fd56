#pragma once

// The finite-state entropy tables of an LZFSE block. Each table has 2^n states handed out to the
// symbols in contiguous runs, in symbol order; a symbol with frequency f owns f states. The
// decoder tables say, per state, which symbol it emits and how to find the next state; the
// encoder tables invert that per symbol.

#include <cstdint>

namespace morvane::lzfse::fse {

// Scales `counts` so that they add up to `states` exactly, keeping every counted symbol at 1 or
// more. With no counts at all, symbol 0 gets every state.
void normalise(const std::uint32_t* counts, int symbols, int states, std::uint16_t* frequencies);

// Sum of `symbols` frequencies.
std::uint32_t sum(const std::uint16_t* frequencies, int symbols);

// One literal state: the byte it emits, and the next state, `base + read(bits)`.
struct LiteralEntry {
    std::uint8_t bits;
    std::uint8_t symbol;
    std::uint16_t base;
};

// One L, M or D state. A single read of `totalBits` gives the state bits (high part) and the
// value's extra bits (low `extraBits`): next state = stateBase + (read >> extraBits), value =
// valueBase + (read & mask(extraBits)).
struct ValueEntry {
    std::uint8_t totalBits;
    std::uint8_t extraBits;
    std::uint16_t stateBase;
    std::uint32_t valueBase;
};

// Fill a decoder table of 2^stateBits entries. The frequencies must add up to at most
// 2^stateBits; states beyond their sum are left as harmless zero entries.
void buildLiteralTable(const std::uint16_t* frequencies, int stateBits, LiteralEntry* table);
void buildValueTable(const std::uint16_t* frequencies, int symbols, int stateBits, const std::uint8_t* extraBits,
                     const std::uint32_t* valueBase, ValueEntry* table);

// How to encode one symbol from encoder state x (in [0, 2^stateBits)): with low = (x < threshold),
// write the low `bits - low` bits of x and move to delta[low] + (x >> (bits - low)).
struct EncoderSymbol {
    std::int16_t bits;
    std::uint16_t threshold;
    std::int16_t delta[2];
};

// The frequencies must add up to exactly 2^stateBits. Symbols with frequency 0 get no entry
// and must not be encoded.
void buildEncoderTable(const std::uint16_t* frequencies, int symbols, int stateBits, EncoderSymbol* table);

} // namespace morvane::lzfse::fse

#include "Lzfse/Fse.h"

#include <algorithm>
#include <bit>

namespace morvane::lzfse::fse {

void normalise(const std::uint32_t* counts, int symbols, int states, std::uint16_t* frequencies) {
    std::uint64_t total = 0;
    int mostFrequent = 0;
    for (int s = 0; s < symbols; ++s) {
        total += counts[s];
        if (counts[s] > counts[mostFrequent]) mostFrequent = s;
    }
    if (total == 0) {
        std::fill(frequencies, frequencies + symbols, std::uint16_t{0});
        frequencies[0] = static_cast<std::uint16_t>(states);
        return;
    }

    // Round half up; a symbol that occurs keeps at least one state so that it stays encodable.
    int assigned = 0;
    for (int s = 0; s < symbols; ++s) {
        std::uint64_t f = (2 * std::uint64_t{counts[s]} * states + total) / (2 * total);
        if (f == 0 && counts[s] != 0) f = 1;
        frequencies[s] = static_cast<std::uint16_t>(f);
        assigned += static_cast<int>(f);
    }

    int excess = assigned - states;
    if (excess <= 0 || excess < frequencies[mostFrequent] / 4) {
        // The most frequent symbol absorbs a small error with the least damage to the ratio.
        frequencies[mostFrequent] = static_cast<std::uint16_t>(frequencies[mostFrequent] - excess);
        return;
    }
    // Many rare symbols were rounded up to 1: take the excess from everyone, gently at first.
    for (int shift = 3; shift >= 0 && excess > 0; --shift) {
        for (int s = 0; s < symbols && excess > 0; ++s) {
            if (frequencies[s] <= 1) continue;
            const int take = std::min((frequencies[s] - 1) >> shift, excess);
            frequencies[s] = static_cast<std::uint16_t>(frequencies[s] - take);
            excess -= take;
        }
    }
}

std::uint32_t sum(const std::uint16_t* frequencies, int symbols) {
    std::uint32_t total = 0;
    for (int s = 0; s < symbols; ++s)
        total += frequencies[s];
    return total;
}

namespace {

// Calls visit(state, symbol, bits, base) for every state of the table, in state order.
template <typename Visit> void forEachState(const std::uint16_t* frequencies, int symbols, int stateBits, Visit visit) {
    const int states = 1 << stateBits;
    int state = 0;
    for (int symbol = 0; symbol < symbols; ++symbol) {
        const int f = frequencies[symbol];
        if (f == 0) continue;
        const int k = stateBits - (std::bit_width(static_cast<unsigned>(f)) - 1);
        const int wide = (2 * states >> k) - f; // this many states read k bits, the rest k - 1
        for (int j = 0; j < f; ++j, ++state) {
            if (j < wide)
                visit(state, symbol, k, ((f + j) << k) - states);
            else
                visit(state, symbol, k - 1, (j - wide) << (k - 1));
        }
    }
}

} // namespace

void buildLiteralTable(const std::uint16_t* frequencies, int stateBits, LiteralEntry* table) {
    std::fill(table, table + (1 << stateBits), LiteralEntry{});
    forEachState(frequencies, 256, stateBits, [&](int state, int symbol, int bits, int base) {
        table[state] = {static_cast<std::uint8_t>(bits), static_cast<std::uint8_t>(symbol),
                        static_cast<std::uint16_t>(base)};
    });
}

void buildValueTable(const std::uint16_t* frequencies, int symbols, int stateBits, const std::uint8_t* extraBits,
                     const std::uint32_t* valueBase, ValueEntry* table) {
    std::fill(table, table + (1 << stateBits), ValueEntry{});
    forEachState(frequencies, symbols, stateBits, [&](int state, int symbol, int bits, int base) {
        table[state] = {static_cast<std::uint8_t>(bits + extraBits[symbol]), extraBits[symbol],
                        static_cast<std::uint16_t>(base), valueBase[symbol]};
    });
}

void buildEncoderTable(const std::uint16_t* frequencies, int symbols, int stateBits, EncoderSymbol* table) {
    const int states = 1 << stateBits;
    int first = 0;
    for (int symbol = 0; symbol < symbols; ++symbol) {
        const int f = frequencies[symbol];
        if (f == 0) {
            table[symbol] = {};
            continue;
        }
        const int k = stateBits - (std::bit_width(static_cast<unsigned>(f)) - 1);
        table[symbol] = {static_cast<std::int16_t>(k),
                         static_cast<std::uint16_t>((f << k) - states),
                         {static_cast<std::int16_t>(first + (states >> k) - f),
                          static_cast<std::int16_t>(first + (2 * states >> k) - f)}};
        first += f;
    }
}

} // namespace morvane::lzfse::fse

#pragma once

// The two bit streams of an LZFSE block are written forwards and read backwards: the last
// value written is the first read. The writer fills a buffer sized by its caller; the reader
// walks a payload from its end towards its start.

#include "Lzfse/Format.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace morvane::lzfse {

// Writes into a buffer the caller has sized: up to 8 bytes past the last whole byte written
// may be touched. Between two flushes at most 56 bits may be written.
class BitWriter {
public:
    explicit BitWriter(std::uint8_t* out) : start_(out), next_(out) {}

    // Adds the low `count` bits of `value`; value has no higher bits.
    void write(std::uint64_t value, int count) {
        accumulator_ |= value << pending_;
        pending_ += count;
    }

    // Stores the whole bytes written so far.
    void flush() {
        format::store64(next_, accumulator_);
        const int bytes = pending_ >> 3;
        next_ += bytes;
        accumulator_ >>= 8 * bytes;
        pending_ &= 7;
    }

    // Pads to a whole byte with zero bits. Returns the number of bytes written, and in
    // `finalBits` minus the number of padding bits, as the block header records it.
    std::size_t finish(int& finalBits) {
        flush();
        finalBits = pending_ == 0 ? 0 : pending_ - 8;
        if (pending_ > 0) ++next_;
        accumulator_ = 0;
        pending_ = 0;
        return static_cast<std::size_t>(next_ - start_);
    }

private:
    std::uint8_t* const start_;
    std::uint8_t* next_;
    std::uint64_t accumulator_ = 0;
    int pending_ = 0;
};

// Reads a payload backwards. Reading past the start of the payload is not checked on every
// read: zero bits are shifted in instead and counted, and `overran()` tells afterwards whether
// any were consumed. Callers bound their loops by the block's counts, so this always ends.
class BackwardBitReader {
public:
    // `finalBits` is in -7..0. Returns false if the padding bits of the last byte are not zero
    // or the payload is empty while claiming padding.
    bool start(const std::uint8_t* begin, std::size_t size, int finalBits) {
        begin_ = begin;
        overrun_ = 0;
        if (size == 0) {
            accumulator_ = 0;
            available_ = 0;
            position_ = begin;
            return finalBits == 0;
        }
        if (size >= 8) {
            position_ = begin + size - 8;
            accumulator_ = format::load64(position_);
        } else {
            position_ = begin;
            accumulator_ = 0;
            for (std::size_t i = 0; i < size; ++i)
                accumulator_ |= std::uint64_t{begin[i]} << (8 * i);
        }
        available_ = static_cast<int>(8 * std::min<std::size_t>(size, 8)) + finalBits;
        return available_ >= 64 || (accumulator_ >> available_) == 0;
    }

    // Makes at least 56 bits readable.
    void refill() {
        const int wanted = (63 - available_) >> 3;
        if (wanted <= 0) return;
        if (position_ - begin_ >= wanted) {
            position_ -= wanted;
            available_ += 8 * wanted;
            accumulator_ = format::load64(position_);
            return;
        }
        const int real = static_cast<int>(position_ - begin_);
        if (real > 0) {
            position_ = begin_;
            available_ += 8 * real;
            accumulator_ = format::load64(position_);
        }
        const int virtualBits = 8 * (wanted - real);
        accumulator_ <<= virtualBits;
        available_ += virtualBits;
        overrun_ += virtualBits;
    }

    // Reads `count` bits (0..56, and no more than refill() guaranteed).
    std::uint32_t read(int count) {
        available_ -= count;
        // A fresh reader may hold all 64 bits; a 0-bit read then leaves 64, which no shift takes.
        return static_cast<std::uint32_t>((accumulator_ >> (available_ & 63)) & ((std::uint64_t{1} << count) - 1));
    }

    // Whether any bit before the start of the payload was read.
    bool overran() const { return available_ < overrun_; }

private:
    const std::uint8_t* begin_ = nullptr;
    const std::uint8_t* position_ = nullptr;
    std::uint64_t accumulator_ = 0;
    int available_ = 0; // readable bits, counted up from bit 0 of the accumulator
    int overrun_ = 0;   // of which this many lie before the start of the payload
};

} // namespace morvane::lzfse

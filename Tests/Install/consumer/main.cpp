// A program built against the installed core, once through pkg-config and once through CMake.
#include "MorvaneCore/Shared/Compression.h"

#include <iostream>
#include <string>

int main() {
    const std::string text(4096, 'a');
    const bool same = morvane::compression::decompress(morvane::compression::compress(text)) == text;
    std::cout << (same ? "round trip" : "round trip changed the text") << '\n';
    return same ? 0 : 1;
}

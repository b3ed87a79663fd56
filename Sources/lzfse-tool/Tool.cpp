#include "lzfse-tool/Tool.h"

#include "Lzfse/Lzfse.h"
#include "MorvanePlatform/Files.h"

#include <chrono>
#include <cstdio>
#include <iomanip>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace morvane::lzfsetool {

namespace {

constexpr std::string_view usage = "usage: lzfse -encode|-decode [-i IN] [-o OUT] [-v]\n";

std::string readStandardInput() {
    std::string bytes;
    char buffer[1 << 16];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, stdin)) > 0)
        bytes.append(buffer, n);
    if (std::ferror(stdin)) throw PlatformError("Couldn't read standard input");
    return bytes;
}

void writeStandardOutput(std::string_view bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0)
        throw PlatformError("Couldn't write standard output");
}

} // namespace

int run(int argc, const char* const* argv, std::ostream& err) {
    std::optional<bool> encode;
    std::optional<std::string> inputPath, outputPath;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "-encode" || argument == "-decode") {
            encode = argument == "-encode";
        } else if ((argument == "-i" || argument == "-o") && i + 1 < argc) {
            (argument == "-i" ? inputPath : outputPath) = argv[++i];
        } else if (argument == "-v") {
            verbose = true;
        } else if (argument == "-h") {
            err << usage;
            return success;
        } else {
            err << "lzfse: unexpected argument '" << argument << "'\n" << usage;
            return usageFailure;
        }
    }
    if (!encode) {
        err << "lzfse: say -encode or -decode\n" << usage;
        return usageFailure;
    }

    try {
        const std::string input = inputPath ? files::read(*inputPath) : readStandardInput();
        const std::span bytes(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
        const auto started = std::chrono::steady_clock::now();
        const std::vector<std::uint8_t> output = *encode ? lzfse::compress(bytes) : lzfse::decompress(bytes);
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
        const std::string_view result(reinterpret_cast<const char*>(output.data()), output.size());
        if (outputPath)
            files::writeAtomically(*outputPath, result);
        else
            writeStandardOutput(result);

        if (verbose) {
            const std::size_t raw = *encode ? input.size() : output.size();
            const std::size_t compressed = *encode ? output.size() : input.size();
            err << (*encode ? "encode" : "decode") << ": " << input.size() << " -> " << output.size() << " bytes";
            if (compressed > 0)
                err << ", ratio " << std::fixed << std::setprecision(3) << double(raw) / double(compressed);
            err << ", " << std::fixed << std::setprecision(1) << elapsed.count() * 1e3 << " ms";
            if (elapsed.count() > 0) err << ", " << double(raw) / 1e6 / elapsed.count() << " MB/s";
            err << '\n';
        }
        return success;
    } catch (const Error& error) {
        err << "lzfse: " << error.description() << '\n';
        return failure;
    }
}

} // namespace morvane::lzfsetool

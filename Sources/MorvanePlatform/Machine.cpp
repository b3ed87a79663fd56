#include "MorvanePlatform/Machine.h"

#include "MorvanePlatform/Error.h"
#include "MorvanePlatform/Files.h"

#include <array>
#include <climits>
#include <unistd.h>

namespace morvane {
namespace {

std::string trimmed(std::string text) {
    constexpr const char* blanks = " \t\r\n";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

class HostMachine final : public Machine {
public:
    std::optional<std::string> identifier() const override { return identifierIn("/etc/machine-id"); }

    std::optional<std::string> name() const override {
        std::array<char, HOST_NAME_MAX + 1> buffer{};
        if (::gethostname(buffer.data(), buffer.size() - 1) != 0) return std::nullopt;
        auto host = trimmed(buffer.data());
        if (host.empty()) return std::nullopt;
        return host;
    }
};

} // namespace

std::optional<std::string> Machine::identifierIn(const std::filesystem::path& file) {
    std::string content;
    try {
        content = files::read(file);
    } catch (const Error&) {
        return std::nullopt;
    }
    auto firstLine = trimmed(content.substr(0, content.find('\n')));
    if (firstLine.empty()) return std::nullopt;
    return firstLine;
}

Machine& Machine::system() {
    static HostMachine machine;
    return machine;
}

} // namespace morvane

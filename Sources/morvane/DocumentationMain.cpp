// Writes what is generated from the command table at build time: `morvane-docs man TEMPLATE` the
// manual page, `morvane-docs bash|zsh|fish` a completion script, on standard output.

#include "morvane/Documentation.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

int main(int argc, char** argv) {
    using namespace morvane::cli::documentation;
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (what == "man" && argc == 3) {
        std::ifstream file(argv[2]);
        if (!file.is_open()) {
            std::cerr << "morvane-docs: can't read " << argv[2] << '\n';
            return 1;
        }
        const std::string pageTemplate{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        writeManPage(pageTemplate, std::cout);
    } else if (what == "bash" && argc == 2) {
        writeCompletion(Shell::bash, std::cout);
    } else if (what == "zsh" && argc == 2) {
        writeCompletion(Shell::zsh, std::cout);
    } else if (what == "fish" && argc == 2) {
        writeCompletion(Shell::fish, std::cout);
    } else {
        std::cerr << "usage: morvane-docs man TEMPLATE | bash | zsh | fish\n";
        return 2;
    }
    std::cout.flush();
    return std::cout ? 0 : 1;
}

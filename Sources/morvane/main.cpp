#include "morvane/CommandLine.h"

#include <iostream>

int main(int argc, char** argv) { return morvane::cli::run(argc, argv, std::cout, std::cerr); }

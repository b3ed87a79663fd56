#include "lzfse-tool/Tool.h"

#include <iostream>

int main(int argc, char** argv) { return morvane::lzfsetool::run(argc, argv, std::cerr); }

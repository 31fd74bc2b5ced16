#include <iostream>

#include "commands.h"

int main(int argc, char** argv) {
  return varkel::cli::RunCli(argc, argv, std::cout, std::cerr);
}

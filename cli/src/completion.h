#pragma once
// Shell completion scripts, written from the command line's own tree of subcommands and
// options when asked, so they list whatever the program takes today.

#include <CLI/CLI.hpp>
#include <string>

namespace varkel::cli {

// For `source` in bash; completes the program named `app.get_name()`.
std::string BashCompletion(const CLI::App& app);
// A zsh completion function (#compdef); also registers itself when sourced.
std::string ZshCompletion(const CLI::App& app);

}  // namespace varkel::cli

#include "completion.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>
#include <vector>

namespace varkel::cli {
namespace {

struct Word {
  std::string name;
  std::string help;
};

std::string ShellName(const std::string& program) {
  std::string f = "_";
  for (char c : program) f += (std::isalnum(static_cast<unsigned char>(c)) ? c : '_');
  return f;
}

// Long and short names of the options an app takes, sorted; `valued` collects the ones
// that take a value.
std::vector<Word> OptionWords(const CLI::App& app, std::set<std::string>* valued) {
  std::vector<Word> words;
  for (const CLI::Option* opt : app.get_options([](const CLI::Option* o) { return o->nonpositional(); })) {
    std::vector<std::string> names;
    for (const auto& l : opt->get_lnames()) names.push_back("--" + l);
    for (const auto& s : opt->get_snames()) names.push_back("-" + s);
    for (const auto& n : names) {
      words.push_back({n, opt->get_description()});
      if (valued && opt->get_expected_min() > 0) valued->insert(n);
    }
  }
  std::sort(words.begin(), words.end(), [](const Word& a, const Word& b) { return a.name < b.name; });
  return words;
}

std::vector<const CLI::App*> Subcommands(const CLI::App& app) {
  std::vector<const CLI::App*> subs = app.get_subcommands([](const CLI::App* s) { return !s->get_name().empty(); });
  std::sort(subs.begin(), subs.end(),
            [](const CLI::App* a, const CLI::App* b) { return a->get_name() < b->get_name(); });
  return subs;
}

// The names of both lists, sorted, each once (a command's --help is also the program's).
std::string Names(const std::vector<Word>& words, const std::vector<Word>& more = {}) {
  std::set<std::string> names;
  for (const auto& w : words) names.insert(w.name);
  for (const auto& w : more) names.insert(w.name);
  std::string s;
  for (const auto& n : names) s += (s.empty() ? "" : " ") + n;
  return s;
}

// One entry of a zsh _describe list: 'name:help', colons in the name escaped.
std::string ZshEntry(const Word& w) {
  std::string e;
  for (char c : w.name) e += (c == ':' ? std::string("\\:") : std::string(1, c));
  e += ":" + w.help;
  std::string quoted = "'";
  for (char c : e) quoted += (c == '\'' ? std::string("'\\''") : std::string(1, c));
  return quoted + "'";
}

}  // namespace

std::string BashCompletion(const CLI::App& app) {
  const std::string fn = ShellName(app.get_name());
  std::set<std::string> valued;
  const std::vector<Word> global = OptionWords(app, &valued);
  std::vector<Word> commands;
  std::ostringstream cases;
  for (const CLI::App* sub : Subcommands(app)) {
    commands.push_back({sub->get_name(), sub->get_description()});
    // Options of the program stand after the command too.
    cases << "    " << sub->get_name() << ") words=\"" << Names(OptionWords(*sub, &valued), global) << "\" ;;\n";
  }
  std::string valued_list;
  for (const auto& v : valued) valued_list += " " + v;

  std::ostringstream s;
  s << "# bash completion for " << app.get_name() << "; written by `" << app.get_name() << " completion bash`\n"
    << fn << "() {\n"
    << "  local cur=\"${COMP_WORDS[COMP_CWORD]}\" prev=\"\" cmd=\"\" words i\n"
    << "  local commands=\" " << Names(commands) << " \" valued=\"" << valued_list << " \"\n"
    << "  [ \"$COMP_CWORD\" -gt 0 ] && prev=\"${COMP_WORDS[COMP_CWORD-1]}\"\n"
    << "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
    << "    case \"$commands\" in *\" ${COMP_WORDS[i]} \"*) cmd=\"${COMP_WORDS[i]}\"; break ;; esac\n"
    << "  done\n"
    << "  # The value of an option: a file name is the best guess.\n"
    << "  if [[ \"$valued\" == *\" $prev \"* ]]; then\n"
    << "    COMPREPLY=($(compgen -f -- \"$cur\"))\n"
    << "    return\n"
    << "  fi\n"
    << "  case \"$cmd\" in\n"
    << cases.str() << "    *) words=\"" << Names(global) << " " << Names(commands) << "\" ;;\n"
    << "  esac\n"
    << "  COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
    << "  if [ -n \"$cmd\" ] && [[ \"$cur\" != -* ]]; then COMPREPLY+=($(compgen -f -- \"$cur\")); fi\n"
    << "}\n"
    << "complete -o filenames -F " << fn << " " << app.get_name() << "\n";
  return s.str();
}

std::string ZshCompletion(const CLI::App& app) {
  const std::string fn = ShellName(app.get_name());
  const std::vector<Word> global = OptionWords(app, nullptr);
  std::ostringstream s;
  s << "#compdef " << app.get_name() << "\n"
    << "# zsh completion for " << app.get_name() << "; written by `" << app.get_name() << " completion zsh`\n"
    << fn << "() {\n"
    << "  local -a commands options\n"
    << "  local cmd=\"\" w\n"
    << "  commands=(\n";
  std::ostringstream cases;
  for (const CLI::App* sub : Subcommands(app)) {
    s << "    " << ZshEntry({sub->get_name(), sub->get_description()}) << "\n";
    cases << "    (" << sub->get_name() << ") options=(";
    for (const auto& w : OptionWords(*sub, nullptr)) {
      // The program's own options are added below for every command.
      const bool global_too =
          std::any_of(global.begin(), global.end(), [&](const Word& g) { return g.name == w.name; });
      if (!global_too) cases << "\n      " << ZshEntry(w);
    }
    cases << ") ;;\n";
  }
  s << "  )\n"
    << "  for w in ${words[2,CURRENT-1]}; do\n"
    << "    if (( ${commands[(I)${w}:*]} )); then cmd=$w; break; fi\n"
    << "  done\n"
    << "  case $cmd in\n"
    << cases.str() << "  esac\n"
    << "  options+=(";
  for (const auto& w : global) s << "\n    " << ZshEntry(w);
  s << ")\n"
    << "  if [[ $PREFIX == -* ]]; then\n"
    << "    _describe -t options option options\n"
    << "  elif [[ -z $cmd ]]; then\n"
    << "    _describe -t commands command commands\n"
    << "  else\n"
    << "    _files\n"
    << "  fi\n"
    << "}\n"
    << "if [[ ${zsh_eval_context[-1]} == loadautofunc ]]; then\n"
    << "  " << fn << " \"$@\"\n"
    << "else\n"
    << "  compdef " << fn << " " << app.get_name() << "\n"
    << "fi\n";
  return s.str();
}

}  // namespace varkel::cli

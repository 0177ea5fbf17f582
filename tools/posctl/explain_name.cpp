#include <algorithm>
#include <cctype>
#include <string>

#include "tools/command.h"
#include "tools/near_name.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/glossary.h"
#include "tools/posctl/record_json.h"

namespace posctl {
namespace {

std::string lower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::vector<Term> terms_named(const std::string& name) {
  auto all = glossary();
  std::vector<Term> found;
  std::ranges::copy_if(all, std::back_inserter(found), [&](const Term& term) {
    return lower(term.name) == lower(name) ||
           (term.kind == "monitor" &&
            lower(term.meaning).find(lower(name) + ":") != std::string::npos);
  });
  if (!found.empty()) return found;
  std::vector<std::string> names;
  names.reserve(all.size());
  for (const auto& term : all)
    names.push_back(term.name);
  throw tools::Usage_error("nothing has the name \"" + name + "\"" +
                           tools::did_you_mean(name, names) +
                           "\nposctl explain without a name lists all.");
}

/// A table for each kind.
std::string markdown(const std::vector<Term>& terms) {
  std::string text;
  std::string kind;
  for (const auto& term : terms) {
    if (term.kind != kind) {
      kind = term.kind;
      text += (text.empty() ? "| " : "\n| ") + kind + " | meaning |\n|---|---|\n";
    }
    text += "| `" + term.name + "` | " + term.meaning + " |\n";
  }
  return text;
}

}  // namespace

int explain_name(const Explain_options& options) {
  const auto terms = options.name.empty() ? glossary() : terms_named(options.name);
  std::string text;
  if (options.json) {
    Json json{{"schema", 1}, {"terms", Json::array()}};
    for (const auto& term : terms)
      json["terms"].push_back(
          {{"kind", term.kind}, {"name", term.name}, {"meaning", term.meaning}});
    text = json.dump() + "\n";
  } else if (options.markdown) {
    text = markdown(terms);
  } else {
    for (const auto& term : terms)
      text += term.name + " (" + term.kind + "): " + term.meaning + "\n";
  }
  tools::write_output(text);
  return 0;
}

}  // namespace posctl

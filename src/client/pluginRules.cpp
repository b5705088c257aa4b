#include "src/client/pluginRules.h"

#include <fcntl.h>
#include <regex.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "src/client/hashedExecutable.h"
#include "src/common/convertTo.h"
#include "src/common/logFile.h"
#include "src/service/service.h"

namespace {

const char kNoRule[] = "no rule allows these arguments";
const char kWrongHash[] = "the executable does not match its hash";

struct RegexFree {
  void operator()(regex_t* regex) const {
    ::regfree(regex);
    delete regex;
  }
};
using Regex = std::unique_ptr<regex_t, RegexFree>;

// regcomp(REG_EXTENDED | REG_NOSUB): glibc's matcher stays linear in the argument's length, where
// std::regex backtracks without bound. Null, with `error` set, when it does not compile.
Regex compile(const std::string& text, int& error) {
  Regex regex(new regex_t);
  error = ::regcomp(regex.get(), text.c_str(), REG_EXTENDED | REG_NOSUB);
  if (error != 0) {
    delete regex.release();  // nothing to regfree
    return nullptr;
  }
  return regex;
}

std::string regexError(int error) {
  char text[256];
  ::regerror(error, nullptr, text, sizeof text);
  return text;
}

// One argument's pattern, matching only a whole argument: ^(PATTERN)$, around all its branches.
// Null, with `problem` set, for a pattern that cannot be used.
Regex compilePattern(const std::string& pattern, std::string& problem) {
  const std::string quoted = "'" + pattern + "': ";
  // A back-reference makes matching exponential in the argument. Every backslash before a digit
  // is refused, also inside a bracket expression, where "[\1]" would only mean a backslash or a 1.
  for (std::size_t at = 0; at + 1 < pattern.size(); ++at) {
    if (pattern[at] != '\\') continue;
    if (pattern[at + 1] >= '1' && pattern[at + 1] <= '9') {
      problem = quoted + "back-references are not allowed";
      return nullptr;
    }
    ++at;  // an escaped character, a backslash included
  }
  int error = 0;
  if (!compile(pattern, error)) {
    problem = quoted + regexError(error);
    return nullptr;
  }
  // glibc takes a ')' without its '(' as a plain character, so "a)|(b)" would close the anchoring
  // group early: "^(a)|(b))$" matches any text that begins with "a". glibc itself tells: an opening
  // parenthesis put before a pattern whose own parentheses pair up stays unmatched.
  if (compile("(" + pattern, error) || error != REG_EPAREN) {
    problem = quoted + (error == 0 ? "a ')' without its '('" : regexError(error));
    return nullptr;
  }
  Regex anchored = compile("^(" + pattern + ")$", error);
  if (!anchored) problem = quoted + regexError(error);
  return anchored;
}

bool matches(const regex_t& pattern, const std::string& argument) {
  // The plugin would get an argument cut at a NUL byte, and regexec would see it cut as well; one
  // that holds a NUL is refused rather than allowed for a part of it.
  return argument.find('\0') == std::string::npos &&
         ::regexec(&pattern, argument.c_str(), 0, nullptr, 0) == 0;
}

bool parseSha256(const std::string& hex, HashedExecutable::Digest& digest) {
  if (hex.size() != 2 * digest.size()) return false;
  for (std::size_t i = 0; i < digest.size(); ++i) {
    const int high = hexDigitValue(hex[2 * i]);
    const int low = hexDigitValue(hex[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    digest[i] = static_cast<unsigned char>(high * 16 + low);
  }
  return true;
}

// The whole file; FileException naming it and the system's reason when it cannot be read (a
// directory opens, and fails only at the read).
std::string readRulesFile(const std::string& path) {
  const auto failure = [&path] {
    return FileException("cannot read the plugin rules " + path + ": " + std::strerror(errno));
  };
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) throw failure();
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t received = ::read(file.get(), buffer, sizeof buffer);
    if (received == 0) return text;
    if (received == -1) {
      if (errno == EINTR) continue;
      throw failure();
    }
    text.append(buffer, static_cast<std::size_t>(received));
  }
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::size_t skipBlanks(const std::string& line, std::size_t at) {
  while (at < line.size() && isBlank(line[at])) ++at;
  return at;
}

}  // namespace

struct PluginRules::Plugin {
  struct Rule {
    bool anyArguments = true;
    std::vector<Regex> patterns;
    std::optional<HashedExecutable::Digest> sha256;

    bool allows(const std::vector<std::string>& arguments) const {
      if (anyArguments) return true;
      if (arguments.size() != patterns.size()) return false;
      for (std::size_t i = 0; i < arguments.size(); ++i)
        if (!matches(*patterns[i], arguments[i])) return false;
      return true;
    }
  };

  // The fields after the name, from `at` on; empty `problem` when the whole line can be used.
  static Rule parse(const std::string& line, std::size_t at, std::string& problem) {
    Rule rule;
    for (at = skipBlanks(line, at); at < line.size(); at = skipBlanks(line, at)) {
      if (line.compare(at, 5, "args=") == 0) {
        rule.anyArguments = false;
        std::vector<std::string> texts;
        appendParameterTokens(line.substr(at + 5), texts);
        for (const std::string& text : texts) {
          rule.patterns.push_back(compilePattern(text, problem));
          if (!problem.empty()) break;
        }
        break;
      }
      std::size_t end = at;
      while (end < line.size() && !isBlank(line[end])) ++end;
      const std::string field = line.substr(at, end - at);
      at = end;
      if (field.compare(0, 7, "sha256=") != 0) {
        problem = "unknown field '" + field + "'";
      } else if (rule.sha256) {
        problem = "sha256= given twice";
      } else if (!parseSha256(field.substr(7), rule.sha256.emplace())) {
        problem = "'" + field.substr(7) + "' is not a SHA-256 (64 hexadecimal digits)";
      }
      if (!problem.empty()) break;
    }
    return rule;
  }

  std::vector<Rule> rules;
  std::unique_ptr<HashedExecutable> executable;  // of the catalogue's path, once a rule pins it
};

PluginRules::PluginRules(const std::string& path,
                         const std::map<std::string, std::string>& catalogue)
    : text_(readRulesFile(path)) {
  const std::string& text = text_;
  std::size_t number = 0;
  for (std::size_t start = 0; start < text.size();) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    ++number;
    // A CR LF line end would make the CR a part of the last field, never matched: it goes.
    if (!line.empty() && line.back() == '\r') line.pop_back();

    const std::size_t nameStart = skipBlanks(line, 0);
    if (nameStart == line.size() || line[nameStart] == '#') continue;
    std::size_t nameEnd = nameStart;
    while (nameEnd < line.size() && !isBlank(line[nameEnd])) ++nameEnd;
    const std::string name = line.substr(nameStart, nameEnd - nameStart);

    std::string problem;
    Plugin::Rule rule = Plugin::parse(line, nameEnd, problem);
    const auto listed = catalogue.find(name);
    if (problem.empty() && listed == catalogue.end())
      problem = name + " is not in the plugin catalogue (plugin_list, plugin_dir)";
    if (!problem.empty()) {
      problems_.push_back(path + ":" + std::to_string(number) + ": " + problem +
                          "; the line allows nothing");
      continue;
    }
    std::unique_ptr<Plugin>& plugin = plugins_[name];
    if (!plugin) plugin = std::make_unique<Plugin>();
    if (rule.sha256 && !plugin->executable)
      plugin->executable = std::make_unique<HashedExecutable>(listed->second);
    plugin->rules.push_back(std::move(rule));
  }
}

PluginRules::PluginRules(PluginRules&&) noexcept = default;
PluginRules& PluginRules::operator=(PluginRules&&) noexcept = default;
PluginRules::~PluginRules() = default;

PluginRules::Verdict PluginRules::check(const std::string& name,
                                        const std::vector<std::string>& arguments) {
  Verdict verdict;
  verdict.refusal = kNoRule;
  const auto plugin = plugins_.find(name);
  if (plugin == plugins_.end()) return verdict;
  const HashedExecutable::State* file = nullptr;  // looked at once, and only when a rule pins it
  for (const Plugin::Rule& rule : plugin->second->rules) {
    if (!rule.allows(arguments)) continue;
    if (rule.sha256) {
      if (file == nullptr) file = &plugin->second->executable->current();
      if (!file->file) {
        verdict.refusal = file->error;
        continue;
      }
      if (file->sha256 != *rule.sha256) {
        verdict.refusal = kWrongHash;
        continue;
      }
      verdict.executable = file->file;
    }
    verdict.allowed = true;
    verdict.refusal.clear();
    return verdict;
  }
  return verdict;
}

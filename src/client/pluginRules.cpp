#include "src/client/pluginRules.h"

#include <fcntl.h>
#include <regex.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <set>
#include <utility>

#include "src/client/hashedExecutable.h"
#include "src/common/convertTo.h"
#include "src/common/logFile.h"
#include "src/common/wholeNumber.h"
#include "src/service/pluginConfinement.h"
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

// Bounds that keep the limits in range of every later conversion (MiB to bytes included).
constexpr unsigned long long kMaxCpuSeconds = 24 * 3600;
constexpr unsigned long long kMaxMemoryMib = 1ULL << 20;  // 1 TiB

// The items of a comma-separated value; an empty one stays, to be refused.
std::vector<std::string> commaSeparated(const std::string& value) {
  std::vector<std::string> items;
  for (std::size_t start = 0;;) {
    const std::size_t comma = value.find(',', start);
    items.push_back(value.substr(start, comma - start));
    if (comma == std::string::npos) return items;
    start = comma + 1;
  }
}

// A whole number from 1 to `max`, or 0 with `problem` set.
unsigned long long positive(const std::string& option, const std::string& value,
                            unsigned long long max, const char* unit, std::string& problem) {
  unsigned long long number = 0;
  if (parseWholeNumber(value, max, number) && number > 0) return number;
  problem = option + " '" + value + "' is not a whole number of " + unit + " from 1 to " +
            std::to_string(max);
  return 0;
}

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
    std::vector<std::string> writePaths;
    std::vector<std::uint16_t> connectPorts;
    RuleLimits limits;  // the confinement is built once the whole line is known to be usable

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
    std::set<std::string> given;
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
      const std::size_t equals = field.find('=');
      if (equals == std::string::npos) {
        problem = "unknown field '" + field + "'";
        break;
      }
      const std::string option = field.substr(0, equals + 1);  // "NAME="
      if (!given.insert(option).second)
        problem = option + " given twice";
      else
        parseOption(option, field.substr(equals + 1), rule, problem);
      if (!problem.empty()) break;
    }
    return rule;
  }

  // One NAME=VALUE field before args=; `problem` set when it cannot be used.
  static void parseOption(const std::string& option, const std::string& value, Rule& rule,
                          std::string& problem) {
    if (option == "sha256=") {
      if (!parseSha256(value, rule.sha256.emplace()))
        problem = "'" + value + "' is not a SHA-256 (64 hexadecimal digits)";
    } else if (option == "write=") {
      for (const std::string& path : commaSeparated(value)) {
        if (path.empty() || path[0] != '/') {
          problem = option + " '" + path + "' is not an absolute path";
          return;
        }
        rule.writePaths.push_back(path);
      }
    } else if (option == "connect=") {
      for (const std::string& port : commaSeparated(value)) {
        unsigned long long number = 0;
        if (!parseWholeNumber(port, 65535, number) || number == 0) {
          problem = option + " '" + port + "' is not a TCP port from 1 to 65535";
          return;
        }
        rule.connectPorts.push_back(static_cast<std::uint16_t>(number));
      }
    } else if (option == "cpu=") {
      rule.limits.cpuSeconds =
          static_cast<int>(positive(option, value, kMaxCpuSeconds, "seconds", problem));
    } else if (option == "memory=") {
      rule.limits.memoryMib =
          static_cast<int>(positive(option, value, kMaxMemoryMib, "MiB", problem));
    } else {
      problem = "unknown field '" + option + value + "'";
    }
  }

  std::vector<Rule> rules;
  std::unique_ptr<HashedExecutable> executable;  // of the catalogue's path, once a rule pins it
};

PluginRules::PluginRules(const std::string& path,
                         const std::map<std::string, std::string>& catalogue, int confinementAbi)
    : text_(readRulesFile(path)) {
  // Of the lines that widen it in nothing, made once for them all.
  std::shared_ptr<const PluginConfinement> narrowest;
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
    if (problem.empty() && confinementAbi > 0) {
      try {
        const bool widened = !rule.writePaths.empty() || !rule.connectPorts.empty();
        if (!widened && !narrowest) narrowest = PluginConfinement::make(confinementAbi);
        rule.limits.confinement =
            widened ? PluginConfinement::make(confinementAbi, rule.writePaths, rule.connectPorts)
                    : narrowest;
      } catch (const ConfinementError& e) {
        problem = e.what();
      }
    }
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
    verdict.limits = rule.limits;
    verdict.allowed = true;
    verdict.refusal.clear();
    return verdict;
  }
  return verdict;
}

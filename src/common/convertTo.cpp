#include "src/common/convertTo.h"

#include <iterator>
#include <sstream>

#include <utf8.h>

namespace {

// Formatted extraction already gives the wanted contract under libstdc++: leading white space is
// skipped, reading stops at the first character that cannot continue the number, a non-number
// leaves 0 and an out-of-range number leaves the type's limit (both with failbit, which we drop).
template <typename Number>
Number readNumber(const std::string& text) {
  std::istringstream in(text);
  Number value{};
  in >> value;
  return value;
}

template <typename Number>
std::string writeNumber(Number value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

const char* const kWhiteSpace = " \n\r\t\f\v";

}  // namespace

int stringToInt(std::string text) { return readNumber<int>(text); }
unsigned int stringToUnsignedInt(std::string text) { return readNumber<unsigned int>(text); }
long stringToLong(std::string text) { return readNumber<long>(text); }
long stringToLongInt(std::string text) { return readNumber<long>(text); }
long long stringToLongLongInt(std::string text) { return readNumber<long long>(text); }
double stringToDouble(std::string text) { return readNumber<double>(text); }

std::string intToString(int value) { return writeNumber(value); }
std::string longToString(long value) { return writeNumber(value); }
std::string longIntToString(long value) { return writeNumber(value); }
std::string unsignedLongIntToString(unsigned long value) { return writeNumber(value); }
std::string unsignedLongLongIntToString(unsigned long long value) { return writeNumber(value); }
std::string doubleToString(double value) { return writeNumber(value); }

std::string ltrim(const std::string& text) {
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  return first == std::string::npos ? std::string() : text.substr(first);
}

std::string rtrim(const std::string& text) {
  const std::size_t last = text.find_last_not_of(kWhiteSpace);
  return last == std::string::npos ? std::string() : text.substr(0, last + 1);
}

std::string trim(const std::string& text) { return rtrim(ltrim(text)); }

// A blank rather than U+FFFD: the server shows plugin output as plain text, where a blank is the
// least surprising stand-in for a byte it could not show.
std::string toValidUtf8(const std::string& text) {
  if (utf8::is_valid(text.begin(), text.end())) return text;
  std::string repaired;
  repaired.reserve(text.size());
  utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(repaired), ' ');
  return repaired;
}

// Every byte outside printable ASCII is escaped, UTF-8 too: a log line must not carry a line end,
// a terminal's control sequence or a character that turns the text around (U+202E) into the
// reader's view, and the escaped form shows exactly which bytes arrived.
std::string printableForLog(const std::string& text, std::size_t maxBytes) {
  static const char kHex[] = "0123456789abcdef";
  std::string shown;
  std::size_t taken = 0;
  for (; taken < text.size(); ++taken) {
    const unsigned char c = static_cast<unsigned char>(text[taken]);
    char piece[4] = {static_cast<char>(c)};
    std::size_t length = 1;
    if (c == '\\') {
      piece[1] = '\\';
      length = 2;
    } else if (c < 0x20 || c > 0x7e) {
      piece[0] = '\\';
      piece[1] = 'x';
      piece[2] = kHex[c >> 4];
      piece[3] = kHex[c & 0xf];
      length = 4;
    }
    if (shown.size() + length > maxBytes) break;
    shown.append(piece, length);
  }
  if (taken < text.size()) shown += "...[" + std::to_string(text.size() - taken) + " more bytes]";
  return shown;
}

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string joined(const std::vector<std::string>& items, const std::string& separator) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : separator) + item;
  return text;
}

// Number/text conversions and trimming shared by the code base. Text to number reads one number
// from the start by stream extraction: leading white space skipped, trailing text ignored, 0 for a
// non-number, the type's limit when out of range; nothing throws.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

int stringToInt(std::string text);
unsigned int stringToUnsignedInt(std::string text);
long stringToLong(std::string text);
long stringToLongInt(std::string text);
long long stringToLongLongInt(std::string text);
double stringToDouble(std::string text);

std::string intToString(int value);
std::string longToString(long value);
std::string longIntToString(long value);
std::string unsignedLongIntToString(unsigned long value);
std::string unsignedLongLongIntToString(unsigned long long value);
std::string doubleToString(double value);  // 6 significant digits: 1234567.0 -> "1.23457e+06"

// White space: blank, \n, \r, \t, \f, \v.
std::string ltrim(const std::string& text);
std::string rtrim(const std::string& text);
std::string trim(const std::string& text);

// The items one after the other, `separator` between each two.
std::string joined(const std::vector<std::string>& items, const std::string& separator);

// The value of one hexadecimal digit (either case), or -1 for any other character.
int hexDigitValue(char c);

// The text with every invalid UTF-8 sequence replaced by one blank; valid text comes back as is.
std::string toValidUtf8(const std::string& text);

// `text` fit for one log line, to audit what arrived from outside: a backslash is doubled, every
// byte outside printable ASCII written \xHH (hexadecimal); at most `maxBytes` bytes of that, then
// "...[N more bytes]" with N the bytes of `text` left out.
std::string printableForLog(const std::string& text, std::size_t maxBytes);

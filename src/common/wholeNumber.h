// Reading a limit or a count that the administrator wrote: a whole decimal number and nothing
// else. Unlike the lenient conversions of convertTo, "6O", "-1", " 5" or a number beyond `max` is
// refused rather than read as something else: a limit that silently became another would be worse
// than none.
#pragma once

#include <string>

// True, with `value` set, for a text of decimal digits only whose number is at most `max`.
bool parseWholeNumber(const std::string& text, unsigned long long max, unsigned long long& value);

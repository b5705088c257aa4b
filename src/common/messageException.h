// Base of the agent's exception classes: each carries one message text, given at construction and
// returned by what(). The concrete classes (FileException, serviceException, ...) only name the
// failure domain so that handlers can catch them by type.
#pragma once

#include <exception>
#include <string>
#include <utility>

class MessageException : public std::exception {
 public:
  explicit MessageException(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

#pragma once
// The outcome of a step that can fail for a reason the user must read. Library
// code hands the message back; only the program's entry points print it and
// choose the exit status, so that every caller (the command line, the lab, a
// test) decides for itself what a failure means.

#include <cassert>
#include <optional>
#include <string>
#include <utility>

namespace sensorlay {

class Status {
 public:
  Status() = default;
  static Status failure(std::string message) {
    Status status;
    status.failed_ = true;
    status.message_ = std::move(message);
    return status;
  }

  bool ok() const { return !failed_; }
  explicit operator bool() const { return ok(); }
  // The complaint as one or more lines without the last line end; empty on success.
  const std::string& message() const { return message_; }

 private:
  bool failed_ = false;
  std::string message_;
};

// A value, or the Status of a failure.
template <typename T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}
  Result(Status failure) : status_(std::move(failure)) { assert(!status_.ok()); }

  bool ok() const { return value_.has_value(); }
  explicit operator bool() const { return ok(); }
  const Status& status() const { return status_; }
  const std::string& message() const { return status_.message(); }

  T& value() {
    assert(ok());
    return *value_;
  }
  const T& value() const {
    assert(ok());
    return *value_;
  }
  T& operator*() { return value(); }
  const T& operator*() const { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

 private:
  std::optional<T> value_;
  Status status_;
};

}  // namespace sensorlay

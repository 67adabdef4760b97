#pragma once
// How a failure travels inside the module, the reference host and cr-host:
// a code and the reason, in one value the caller cannot drop unread.
//
// - os::Status: success, or a failure with its code (a qv::status value or
//   the system's error) and a message saying what failed and why.
// - os::Expected<T>: a T, or the Status of the failure that prevented it.
//
// Only where a specified interface is crossed does a Status become a bare
// int32_t (code()) together with a log line of its message.
//
//     os::Expected<Options> options = ParseOptions(arguments);
//     if (!options) return Refuse(options.status().message());
//     Use(*options);
//
// Misuse fails loudly: reading the value of a failed Expected, or making a
// failure with code 0, aborts with the message.
//
// Thread rule: values; no sharing.
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace os {

// Writes "status misused: <what>" to the standard error and aborts.
[[noreturn]] void StatusMisused(const char* what, std::wstring_view message);

class [[nodiscard]] Status {
public:
    // Success.
    Status() = default;
    static Status Ok() { return Status(); }
    // A failure: `code` is never 0.
    static Status Failure(int32_t code, std::wstring message) {
        if (code == 0) StatusMisused("a failure with code 0", message);
        return Status(code, std::move(message));
    }

    bool ok() const noexcept { return code_ == 0; }
    explicit operator bool() const noexcept { return ok(); }
    int32_t code() const noexcept { return code_; }
    // Empty on success.
    const std::wstring& message() const noexcept { return message_; }

    // The same failure with `context` in front: "<context>: <message>".
    // Success stays success.
    Status WithContext(std::wstring_view context) const {
        if (ok()) return *this;
        std::wstring text(context);
        text += L": ";
        text += message_;
        return Status(code_, std::move(text));
    }

    friend bool operator==(const Status&, const Status&) = default;

    // A failure of the system: the code is the system's error, the message
    // "<step>: <the system's text>". A system that gave no code (0) makes a
    // kFunctionFailed that says so.
    static Status System(uint32_t code, std::wstring_view step);

private:
    Status(int32_t code, std::wstring message) : code_(code), message_(std::move(message)) {}

    int32_t code_ = 0;
    std::wstring message_;
};

template <class T>
class [[nodiscard]] Expected {
public:
    Expected(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    // From a failure; a success here is a misuse (there is no value).
    Expected(Status failure) : state_(std::in_place_index<1>, std::move(failure)) {
        if (std::get<1>(state_).ok()) StatusMisused("an Expected made from a success", L"");
    }

    bool ok() const noexcept { return state_.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }

    T& value() & { return std::get<0>(Checked()); }
    const T& value() const& { return std::get<0>(Checked()); }
    T&& value() && { return std::get<0>(std::move(Checked())); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

    // The failure; Status::Ok() when there is a value.
    Status status() const { return ok() ? Status::Ok() : std::get<1>(state_); }

private:
    std::variant<T, Status>& Checked() {
        if (!ok()) StatusMisused("the value of a failure was read", std::get<1>(state_).message());
        return state_;
    }
    const std::variant<T, Status>& Checked() const {
        if (!ok()) StatusMisused("the value of a failure was read", std::get<1>(state_).message());
        return state_;
    }

    std::variant<T, Status> state_;
};

}  // namespace os

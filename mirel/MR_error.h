// Result codes: what an operation answers where no exception may pass.
#pragma once

#include <memory>
#include <string>

namespace Mirel {

/// The outcome of an operation: a signed value, a short symbol and a message for people.
///
/// Values of 0 and above are successes, values below 0 failures. Two results are equal when their values
/// are. A result is a plain value: copy it freely, from any thread.
class [[nodiscard]] Result_t {
  public:
    /// Success (the same as RESULT_OK).
    constexpr Result_t() noexcept : Result_t(0, "OK", "Success.") {}

    /// `symbol` and `message` must live as long as the program (string literals).
    constexpr Result_t(int value, const char* symbol, const char* message) noexcept
        : m_Value(value), m_Symbol(symbol), m_Message(message) {}

    /// The code: 0 and above for successes, below 0 for failures.
    constexpr int Value() const noexcept { return m_Value; }
    /// The code's name, "PARAM" say.
    constexpr const char* Symbol() const noexcept { return m_Symbol; }
    /// The message, as long as this result or a copy of it lives.
    const char* Message() const noexcept { return m_Detail ? m_Detail->c_str() : m_Message; }

    /// Whether this is a success.
    constexpr bool Success() const noexcept { return m_Value >= 0; }
    /// Whether this is a failure.
    constexpr bool Failure() const noexcept { return m_Value < 0; }

    /// The same code with a message of its own, say the system's reason for a failed exchange. Throws
    /// std::bad_alloc.
    Result_t WithMessage(const std::string& message) const {
        Result_t result(*this);
        result.m_Detail = std::make_shared<const std::string>(message);
        return result;
    }

    /// Compares the codes, not the messages.
    friend bool operator==(const Result_t& lhs, const Result_t& rhs) noexcept {
        return lhs.m_Value == rhs.m_Value;
    }

  private:
    int m_Value;
    const char* m_Symbol;
    const char* m_Message;
    std::shared_ptr<const std::string> m_Detail;
};

/// The codes of this framework; the message says what each stands for.
///@{
constinit inline const Result_t RESULT_OK{0, "OK", "Success."};
constinit inline const Result_t RESULT_FAIL{-1, "FAIL", "Unspecified failure."};
constinit inline const Result_t RESULT_STATE{-4, "STATE", "Not possible in this state."};
constinit inline const Result_t RESULT_PARAM{-5, "PARAM", "Invalid parameter."};
constinit inline const Result_t RESULT_FORMAT{-6, "FORMAT", "Malformed text."};
constinit inline const Result_t RESULT_THREAD{-8, "THREAD", "Thread start failure."};
constinit inline const Result_t RESULT_TIMEOUT{-9, "TIMEOUT", "Timed out."};
constinit inline const Result_t RESULT_FILEOPEN{-13, "FILEOPEN", "File open failure."};
constinit inline const Result_t RESULT_READFAIL{-14, "READFAIL", "File read failure."};
constinit inline const Result_t RESULT_WRITEFAIL{-15, "WRITEFAIL", "File write failure."};
constinit inline const Result_t RESULT_NETWORK{-20, "NETWORK", "Network exchange failure."};
///@}

}  // namespace Mirel

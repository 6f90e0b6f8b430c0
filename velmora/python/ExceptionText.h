// The text of a Python exception.
#pragma once

#include <string>

/// What there is to say of an exception.
struct ExceptionText {
    std::string Traceback;  ///< as Python itself would print it, without a newline at the end
    std::string Reason;     ///< "ValueError: of no value"
};

/// Takes the pending exception, which there must be. The interpreter lock must be held.
ExceptionText TakeExceptionText();

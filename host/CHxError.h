// The error object of the host's utility library.
#pragma once

#include "host/SP.h"

#include <cstdint>

// What went wrong in detail: the utility library's own.
class FXErrorPrivate;

class CHxError
{
public:
    // Code 0, no detail.
    static CHxError Success();

    CHxError(const CHxError&);
    CHxError& operator=(const CHxError&);
    ~CHxError();

private:
    explicit CHxError(std::int32_t code);

    [[maybe_unused]] std::int32_t m_code; // read by the utility library alone
    SP<FXErrorPrivate> m_detail;
};

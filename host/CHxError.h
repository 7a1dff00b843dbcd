// The error object of the host's utility library.
#pragma once

#include "SP.h"

#include <cstdint>

// Details of the error, private to the utility library.
class FXErrorPrivate;

class CHxError
{
public:
    // Code 0, no detail.
    static CHxError Success();

    CHxError(const CHxError&);
    CHxError& operator=(const CHxError&);
    ~CHxError();

    // 0 for success.
    std::int32_t getCode() const;

private:
    explicit CHxError(std::int32_t code);

    std::int32_t m_code;
    SP<FXErrorPrivate> m_detail;
};

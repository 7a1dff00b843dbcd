#include "host/CHxError.h"

// The stand-alone host gives no details.
class FXErrorPrivate : public SPEnabled
{
};

CHxError::CHxError(std::int32_t code) : m_code(code) {}
CHxError::CHxError(const CHxError&) = default;
CHxError& CHxError::operator=(const CHxError&) = default;
CHxError::~CHxError() = default;

CHxError CHxError::Success()
{
    return CHxError(0);
}

std::int32_t CHxError::getCode() const
{
    return m_code;
}

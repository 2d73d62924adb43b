#include "ClaimDecodeError.h"

ClaimDecodeError::ClaimDecodeError(QString description)
    : m_description(std::move(description)), m_utf8(m_description.toUtf8()) {}

#include "CompanionError.h"

CompanionError::CompanionError(QString message)
    : m_message(std::move(message)), m_utf8(m_message.toUtf8()) {}

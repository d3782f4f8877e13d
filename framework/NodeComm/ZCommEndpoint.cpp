#include "NodeComm/ZCommEndpoint.h"

ZString ZCommEndpoint::Text() const {
    return ToZString(std::to_string(static_cast<std::int32_t>(m_type)) + ':') + m_name;
}

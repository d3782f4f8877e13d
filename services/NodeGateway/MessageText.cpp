#include "MessageText.h"

#include "ZMessages/ZJSONCommStream.h"
#include "ZMessages/ZMessage.h"
#include "text/Utf8.h"

namespace gateway {

std::string MessageText(const ZMessage& message) {
    ZJSONCommStream stream;
    std::string text;
    message.Save(text, stream);
    return text::ValidUtf8(std::move(text));
}

}  // namespace gateway

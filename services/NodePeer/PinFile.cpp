#include "PinFile.h"

#include <algorithm>

#include "ZMessages/ZFields.h"
#include "ZMessages/ZJSONCommStream.h"

/// One pin, as the file has it.
class ZPinDocument : public ZMessage {
    Z_MESSAGE(ZPinDocument, ZMessage)
public:
    ZString m_Name;
    ZString m_PublicKey;
    ZString m_Address;
    ZString m_SerialNumber;

    Z_FIELDS(Z_FIELD(m_Name), Z_FIELD(m_PublicKey), Z_FIELD(m_Address), Z_FIELD(m_SerialNumber))
};
Z_IMPLEMENT(ZPinDocument)

/// The file.
class ZPinsDocument : public ZMessage {
    Z_MESSAGE(ZPinsDocument, ZMessage)
public:
    ZVector<std::shared_ptr<ZPinDocument>> m_Peers;

    Z_FIELDS(Z_FIELD(m_Peers))
};
Z_IMPLEMENT(ZPinsDocument)

namespace fs = std::filesystem;

namespace {
constexpr std::size_t kLongestName = 64;
}

ZResult<std::vector<ZLinkPin>> LoadPins(const fs::path& file, const ZNodeLink& link) {
    std::error_code code;
    if (!fs::exists(file, code) && !code) {
        return std::vector<ZLinkPin>();
    }
    ZJSONCommStream stream;
    ZPinsDocument document;
    if (!ZMessage::LoadDocument(file, stream) || !document.Deserialize(stream)) {
        return ZError(stream.Error()).In(file.string());
    }
    std::vector<ZLinkPin> pins;
    for (const auto& entry : document.m_Peers) {
        pins.push_back({ToStdString(entry->m_Name), ToStdString(entry->m_PublicKey), ToStdString(entry->m_Address),
                        ToStdString(entry->m_SerialNumber)});
        if (const std::string problem = ProblemWith(pins.back(), link); !problem.empty()) {
            return ZError(problem).In(file.string());
        }
    }
    return pins;
}

ZResult<void> SavePins(const fs::path& file, const std::vector<ZLinkPin>& pins) {
    ZPinsDocument document;
    for (const ZLinkPin& pin : pins) {
        const auto entry = ZMakeShared<ZPinDocument>();
        entry->m_Name = ToZString(pin.name);
        entry->m_PublicKey = ToZString(pin.publicKey);
        entry->m_Address = ToZString(pin.address);
        entry->m_SerialNumber = ToZString(pin.serialNumber);
        document.m_Peers.push_back(entry);
    }
    std::error_code code;
    fs::create_directories(file.parent_path(), code);
    ZJSONCommStream stream;
    return document.Save(file, stream) ? ZResult<void>() : ZError(stream.Error());
}

std::string ProblemWith(const ZLinkPin& pin, const ZNodeLink& link) {
    const auto unfit = [](char letter) { return static_cast<unsigned char>(letter) < 0x20 || letter == 0x7F; };
    if (!link.IsKey(pin.publicKey)) {
        return "\"" + pin.publicKey.substr(0, kLongestName) + "\" is no public key";
    }
    if (pin.name.size() > kLongestName || std::ranges::any_of(pin.name, unfit)) {
        return "the name of " + pin.publicKey + " is longer than 64 characters or holds control characters";
    }
    if (!pin.address.empty() && (!link.IsAddress(pin.address) || pin.address.starts_with("tcp://*"))) {
        return "\"" + pin.address.substr(0, kLongestName) + "\" is no address such as tcp://10.77.0.1:5700";
    }
    return {};
}

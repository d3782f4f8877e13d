#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "ZMessages/ZFields.h"
#include "ZShared/ZError.h"

/// What a message on the link is for.
enum class ZLinkKind : std::int32_t {
    Hello,    ///< introduces the device that sends it; the first message in each direction
    Request,  ///< to be published at the receiver; `request` 0 wants no answer
    Answer,   ///< to the request of that number
    Failure,  ///< no answer to it will come; the message is a ZGenericResponseMsg that says why
};

/// What stands before a message on the link.
class ZLinkHeader : public ZMessage {
    Z_MESSAGE(ZLinkHeader, ZMessage)
public:
    ZLinkKind m_Kind = ZLinkKind::Hello;
    std::uint64_t m_Request = 0;
    std::int32_t m_EndpointType = 0;
    ZString m_Keyword;
    std::uint32_t m_TimeoutMilliseconds = 0;  ///< how long the requester waits

    Z_FIELDS(Z_FIELD(m_Kind), Z_FIELD(m_Request), Z_FIELD(m_EndpointType), Z_FIELD(m_Keyword),
             Z_FIELD(m_TimeoutMilliseconds))
};

/// A header and its message; only a header may stand alone.
struct LinkMessage {
    std::shared_ptr<ZLinkHeader> header;
    std::shared_ptr<ZMessage> message;
    std::size_t size = 0;  ///< of one that came: the bytes that it takes up here, or somewhat more
};

/// A part of a message, and what keeps its text where it is.
struct LinkFrame {
    std::shared_ptr<const void> owner;
    std::string_view text;
};

/// A message as it goes over the link: one frame with the header, one with the message, both JSON, then those with its
/// long texts. A long text is cut into frames of kLinkPiece bytes, the last of which is shorter (or empty): the cipher
/// of one side works on a piece while the other side's works on the piece before.
using LinkFrames = std::vector<LinkFrame>;
inline constexpr std::size_t kLinkPiece = 65536;
/// What LinkSize may be of one message. A chunk of a file is 1 MB long.
inline constexpr std::size_t kLongestLinkMessage = 8U << 20U;
/// Of one frame, its text alone.
inline constexpr std::size_t kLongestLinkFrame = 2U << 20U;
/// What a frame takes up beside its text: many short ones are not free.
inline constexpr std::size_t kLinkFrameCost = 128;

/// Long texts are not copied: the frames share the message, which must not change any more.
LinkFrames EncodeLinkMessage(const LinkMessage& message);
/// An error for anything that is not such a message, or whose values would take up more than kLongestLinkMessage. Takes
/// the frames' contents.
ZResult<LinkMessage> DecodeLinkMessage(LinkFrames frames);
/// All frames together, in bytes, with what each costs.
std::size_t LinkSize(const LinkFrames& frames);

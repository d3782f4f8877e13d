#pragma once

#include <optional>
#include <vector>
#include <zmq.hpp>

#include "ZMessages/ZFields.h"

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
};

/// A message as it goes over the link: one frame with the header, one with the message, both JSON, then those with its
/// long texts. A long text is cut into frames of kLinkPiece bytes, the last of which is shorter (or empty): the cipher
/// of one side works on a piece while the other side's works on the piece before.
using LinkFrames = std::vector<zmq::message_t>;
inline constexpr std::size_t kLinkPiece = 65536;
/// Of one message, all frames together.
inline constexpr std::size_t kLongestLinkMessage = 16U << 20U;

/// Long texts are not copied: the frames share the message, which must not change any more.
LinkFrames EncodeLinkMessage(const LinkMessage& message);
/// Nothing, with `error`, for anything that is no such message. Takes the frames' contents.
std::optional<LinkMessage> DecodeLinkMessage(LinkFrames frames, std::string& error);
/// All frames together, in bytes.
std::size_t LinkSize(const LinkFrames& frames);

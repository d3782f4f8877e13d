#include "SseParser.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace arborctl {
namespace {

// What a stream is about, its bytes, and its events as "name|id|data".
const std::tuple<const char*, std::string, std::vector<std::string>> kStreams[]{
    {"one event", "event: progress\nid: 7\ndata: {\"percent\":5}\n\n", {"progress|7|{\"percent\":5}"}},
    {"carriage returns with and without newline", "event: a\r\ndata: x\r\n\r\nevent: b\rdata: y\r\r", {"a||x", "b||y"}},
    {"several data lines", "data: one\ndata\ndata:two\n\n", {"message||one\n\ntwo"}},
    {"only one blank is taken off", "data:  x \n\n", {"message|| x "}},
    {"a comment within an event", "event: a\n: keep-alive\ndata: x\n\n", {"||keep-alive", "a||x"}},
    {"an event without data is none, and its name is forgotten", "event: a\n\ndata: x\n\n", {"message||x"}},
    {"the id stays until the next", "id: 3\ndata: x\n\ndata: y\n\n", {"message|3|x", "message|3|y"}},
    {"an unknown field and a byte order mark", "\xEF\xBB\xBFretry: 10\ndata: a:b\n\n", {"message||a:b"}},
    {"an unfinished event is not told", "data: x\n\nevent: a\ndata: y\n", {"message||x"}},
};

std::vector<std::string> Parse(const std::vector<std::string_view>& pieces) {
    std::vector<std::string> events;
    SseParser parser(
        [&](const ServerEvent& event) { events.push_back(event.name + "|" + event.id + "|" + event.data); });
    for (const auto piece : pieces) {
        EXPECT_TRUE(parser.Feed(piece));
    }
    return events;
}

TEST(SseParser, TellsTheSameEventsWhereverTheStreamIsCut) {
    for (const auto& [about, stream, events] : kStreams) {
        const std::string_view bytes = stream;
        for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
            EXPECT_EQ(Parse({bytes.substr(0, cut), bytes.substr(cut)}), events) << about << ", cut at byte " << cut;
        }
    }
}

TEST(SseParser, RefusesAnEventThatWouldFillTheMemory) {
    SseParser parser([](const ServerEvent&) {});
    const std::string piece = "data: " + std::string(SseParser::kMaxEventBytes / 2, 'x') + "\n";
    EXPECT_TRUE(parser.Feed(piece));
    EXPECT_FALSE(parser.Feed(piece));
}

}  // namespace
}  // namespace arborctl

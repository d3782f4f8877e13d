#include <cerrno>
#include <cstring>
#include <fstream>

#include "Commands.h"
#include "JsonFields.h"
#include "Table.h"
#include "TextFormat.h"
#include "ZTrust/ZTrustChain.h"

namespace json = boost::json;

namespace arborctl {

namespace {

/// A file of this computer; one that can't be a chain of trust documents is not read to its end.
Result<std::string> ReadChain(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    std::string text(ZTrustChain::kLargest + 2, '\0');
    if (!stream.read(text.data(), static_cast<std::streamsize>(text.size())) && !stream.eof()) {
        return UsageFailure(Escaped(file) + ": " + std::strerror(errno));
    }
    text.resize(static_cast<std::size_t>(stream.gcount()));
    return text;
}

json::array Texts(const std::vector<std::string>& texts) {
    return json::array(texts.begin(), texts.end());
}

json::object ToJson(const ZTrustKey& key) {
    json::array roles;
    for (const ZTrustRole role : key.roles) {
        roles.emplace_back(ToText(role));
    }
    return {{"id", key.id}, {"name", key.name}, {"roles", roles}, {"boards", Texts(key.boards)}};
}

/// As a device tells of the one in force.
json::object ToJson(const ZTrustDocument& document) {
    json::array keys;
    for (const ZTrustKey& key : document.keys) {
        keys.emplace_back(ToJson(key));
    }
    return {{"number", document.number},
            {"expires", document.expires},
            {"securityFloor", document.securityFloor},
            {"trustThreshold", document.Threshold(ZTrustRole::Trust)},
            {"releaseThreshold", document.Threshold(ZTrustRole::Release)},
            {"developmentThreshold", document.Threshold(ZTrustRole::Development)},
            {"keys", keys},
            {"revoked", Texts(document.revoked)}};
}

std::string Joined(const json::array& texts, const char* none) {
    std::string joined;
    for (const json::value& text : texts) {
        joined += (joined.empty() ? "" : ", ") + (text.is_string() ? std::string(text.get_string()) : std::string());
    }
    return joined.empty() ? none : joined;
}

void AddDocument(Table& table, const json::value& document) {
    const std::string expires = fields::Text(document, "expires");
    table.AddRow({"Trust document", "number " + fields::Text(document, "number") +
                                        (expires.empty() ? "" : ", meant to be used until " + expires)});
    table.AddRow({"Security floor", fields::Text(document, "securityFloor")});
    table.AddRow({"Signatures needed", fields::Text(document, "trustThreshold") + " for a trust document, " +
                                           fields::Text(document, "releaseThreshold") + " for a release, " +
                                           fields::Text(document, "developmentThreshold") +
                                           " for a development package"});
    std::string title = "Keys";
    for (const json::value& key : fields::List(document, "keys")) {
        table.AddRow({title, fields::Text(key, "id").substr(0, 16) + "  " + fields::Text(key, "name") + ": " +
                                 Joined(fields::List(key, "roles"), "nothing") + "; " +
                                 Joined(fields::List(key, "boards"), "all boards")});
        title.clear();
    }
    title = "Revoked";
    for (const json::value& digest : fields::List(document, "revoked")) {
        table.AddRow({title, digest.is_string() ? std::string(digest.get_string()) : std::string()});
        title.clear();
    }
}

}  // namespace

Result<ExitCode> ShowTrust(Session& session) {
    const auto answer = session.gateway.Send("trust", json::object());
    if (!answer) {
        return answer.error();
    }
    Table table;
    const std::string signers = fields::Text(*answer, "trustedSigners");
    table.AddRow({"Trust", signers.empty() ? "off: everybody's packages run" : "as " + signers + " says"});
    if (const std::string problem = fields::Text(*answer, "problem"); !problem.empty()) {
        table.AddRow({"Problem", problem});
    }
    if (fields::Number(*answer, "number") > 0) {
        AddDocument(table, *answer);
        table.AddRow({"Development", fields::Flag(*answer, "development") ? "such packages are accepted"
                                                                          : "such packages are refused"});
    } else if (!signers.empty() && fields::Text(*answer, "problem").empty()) {
        table.AddRow({"Trust document", "none: the certificates there decide"});
    }
    session.Print(*answer, table.Text());
    return ExitCode::kDone;
}

Result<ExitCode> ShowTrustFile(Session& session, const std::string& file) {
    const auto text = ReadChain(file);
    if (!text) {
        return text.error();
    }
    const auto chain = ZTrustChain::Parse(*text);
    if (!chain) {
        return UsageFailure(Escaped(file) + ": " + Escaped(chain.error().text));
    }
    json::object document = ToJson(chain->Last());
    const auto isComplete = chain->CheckLast();
    document["problem"] = isComplete ? "" : isComplete.error().text;
    Table table;
    AddDocument(table, document);
    table.AddRow({"Signatures", isComplete ? "those of its own keys are there" : isComplete.error().text});
    session.Print(document, table.Text());
    return ExitCode::kDone;
}

Result<ExitCode> ApplyTrust(Session& session, const std::string& file) {
    const auto text = ReadChain(file);
    if (!text) {
        return text.error();
    }
    const auto answer = session.gateway.Order("applytrust", json::object{{"chain", *text}});
    if (!answer) {
        return answer.error();
    }
    if (!fields::Flag(*answer, "bSuccess")) {
        return session.Refuse(*answer,
                              Escaped(file) + ": not followed: " + fields::Refusal(*answer, "no reason given"));
    }
    session.Print(*answer, Escaped(file) + ": " + Escaped(fields::Text(*answer, "text")) + "\n");
    return ExitCode::kDone;
}

}  // namespace arborctl

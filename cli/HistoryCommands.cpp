#include "Commands.h"
#include "Job.h"
#include "JobWatch.h"
#include "JsonFields.h"
#include "Table.h"
#include "TextFormat.h"
#include "TimeText.h"

namespace json = boost::json;

namespace arborctl {
namespace {

/// "remote-install" as the device's query takes it.
std::string WithoutHyphens(std::string word) {
    std::erase(word, '-');
    return word;
}

std::string HistoryPath(const HistoryOrder& order) {
    std::string path = "/v1/operations?limit=" + std::to_string(order.count);
    if (!order.kind.empty()) {
        path += "&kind=" + WithoutHyphens(order.kind);
    }
    if (!order.state.empty()) {
        path += "&state=" + order.state;
    }
    if (const auto since = SinceFrom(order.since, MillisecondsNow())) {
        path += "&since=" + std::to_string(*since);
    }
    return path;
}

std::string StateText(const Job& job) {
    return job.StateWord() + (job.state == "Running" ? " " + std::to_string(job.percent) + " %" : "");
}

std::string AskerText(const Job& job) {
    return job.asker.empty() ? "the device" : job.asker;
}

std::string HistoryText(const json::array& documents) {
    if (documents.empty()) {
        return "No jobs.\n";
    }
    Table table({"ID", "TIME", "KIND", "WHAT", "ASKED BY", "STATE", "TOOK", "REASON"});
    for (const auto& document : documents) {
        const Job job = Job::From(document);
        table.AddRow({job.ShortId(), TimeText(job.createdAt), job.KindWord(), job.What(), AskerText(job),
                      StateText(job), job.Duration(), job.Why()});
    }
    return table.Text();
}

std::string JobText(const Job& job) {
    Table table;
    const auto add = [&](const char* label, const std::string& text) {
        if (!text.empty()) {
            table.AddRow({label, text});
        }
    };
    const auto time = [](std::int64_t value) { return value == 0 ? std::string() : TimeText(value); };
    add("Id", job.id);
    add("Kind", job.KindWord());
    add("State", StateText(job));
    add("Reason", job.Why());
    add("Error code", job.errorCode == "ERRCODE_NONE" ? "" : job.errorCode);
    add("Version", job.version);
    add("File", job.file);
    add("Accessory", job.device);
    add("Asked by", AskerText(job));
    add("Last news", job.Stage());
    add("Asked at", time(job.createdAt));
    add("Started at", time(job.startedAt));
    add("Ended at", time(job.endedAt));
    add("Took", job.Duration());
    add("Part of", job.parent);
    add("Done by", job.node);
    return table.Text();
}

}  // namespace

Result<ExitCode> ShowHistory(Session& session, const HistoryOrder& order) {
    const auto answer = session.gateway.Get(HistoryPath(order));
    if (!answer) {
        return answer.error();
    }
    session.Print(*answer, HistoryText(fields::List(*answer, "operations")));
    return ExitCode::kDone;
}

Result<ExitCode> ShowJob(Session& session, const std::string& id) {
    const auto answer = session.gateway.Get("/v1/operations/" + id);
    if (!answer) {
        return answer.error();
    }
    session.Print(*answer, JobText(Job::From(*answer)));
    return ExitCode::kDone;
}

Result<ExitCode> CancelJob(Session& session, const std::string& id) {
    const auto watch = JobWatch::Begin(session, JobWatch::Show::kNothing);
    if (!watch) {
        return watch.error();
    }
    const auto answer = session.gateway.Get("/v1/operations/" + id);
    if (!answer) {
        return answer.error();
    }
    Job job = Job::From(*answer);
    const std::string title = Escaped(job.Title());
    if (job.HasEnded()) {
        return Refused(title + ": it has ended already: " + Escaped(job.StateWord()) + ", " + TimeText(job.endedAt));
    }
    if (const auto sent = session.gateway.Order("cancel", json::object{{"id", job.id}}); !sent) {
        return sent.error();
    }
    auto ended = (*watch)->Follow({job.id, {}, {}});
    if (!ended) {
        return ended.error();
    }
    if (ended->state == "Lost") {
        return Failure{ExitCode::kUnreachable, title + ": " + VerdictOn(*ended).error().text};
    }
    if (ended->state != "Cancelled") {
        const std::string why = ended->Why();
        return Refused(title + ": not cancelled, it " +
                       (ended->Succeeded() ? "had succeeded by then" : "failed: " + Escaped(why)));
    }
    session.Print(json::object{{"outcome", "cancelled"}, {"operationId", job.id}, {"reason", ended->reason}},
                  title + ": " + Escaped(ended->Why()) + "\n");
    return ExitCode::kDone;
}

Result<ExitCode> ForgetUpload(Session& session, const std::string& file) {
    const auto answer = session.gateway.Order("forget", json::object{{"file", file}});
    if (!answer) {
        return answer.error();
    }
    if (!fields::Flag(*answer, "bSuccess")) {
        return session.Refuse(*answer, Escaped(file) + ": not removed: " + fields::Refusal(*answer, "no reason given"));
    }
    session.Print(*answer, Escaped(file) + ": removed\n");
    return ExitCode::kDone;
}

}  // namespace arborctl

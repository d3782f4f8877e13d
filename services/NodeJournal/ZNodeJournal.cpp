#include "ZNodeJournal.h"

#include <stdexcept>

#include "Journal.h"

Z_IMPLEMENT(ZNodeJournalCfg)
Z_IMPLEMENT(ZNodeJournal)

namespace {

constexpr std::chrono::seconds kTryAgain{5};
constexpr std::chrono::milliseconds kTrimOn{20};

}  // namespace

ZNodeJournal::ZNodeJournal(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

ZNodeJournal::~ZNodeJournal() = default;

bool ZNodeJournal::OnConfig(const std::shared_ptr<ZMessage>&, const std::shared_ptr<ZConfig>& config) {
    return ReadRecord<ZNodeJournalCfg>(config, [this](const ZNodeJournalCfg& record) {
        m_journal = std::make_unique<journal::Journal>(
            std::filesystem::path(record.m_DatabaseFile),
            journal::Bounds{record.m_MostRows, record.m_MostDays, record.m_MostOrders});
        if (const auto begun = m_journal->Begin(); !begun) {
            throw std::runtime_error(begun.error().text);
        }
        DoRestLater();
    });
}

bool ZNodeJournal::InitMessageMap() {
    const auto subscribe = [this](const char* keyword,
                                  bool (ZNodeJournal::*handler)(const std::shared_ptr<ZMessage>&)) {
        return Subscribe(
            GetEndpoint(ZEndpointType::GraphService, keyword, 0),
            [this, handler](const std::shared_ptr<ZMessage>& message) { return (this->*handler)(message); });
    };
    return subscribe("operation", &ZNodeJournal::OnNews<ZOperationMsg>) &&
           subscribe("operations", &ZNodeJournal::OnRequest<ZOperationsRequestMsg>) &&
           subscribe("order", &ZNodeJournal::OnNews<ZOrderMsg>) &&
           subscribe("orders", &ZNodeJournal::OnRequest<ZOrdersRequestMsg>);
}

template <typename Message>
bool ZNodeJournal::OnNews(const std::shared_ptr<ZMessage>& message) {
    const auto news = cast_shared<Message>(message);
    if (news) {
        m_journal->Take(news);
        DoRestLater();
    }
    return news != nullptr;
}

template <typename Request>
bool ZNodeJournal::OnRequest(const std::shared_ptr<ZMessage>& message) {
    const auto request = cast_shared<Request>(message);
    const bool answered = request && PublishResponse(message, m_journal->Answer(*request));
    DoRestLater();
    return answered;
}

/// The timer runs only while something is left to be done.
void ZNodeJournal::DoRestLater() {
    if (m_bResting || !m_journal->HasRest()) {
        return;
    }
    const auto timer = GetTimer(
        "rest",
        [this](void*) {
            m_bResting = false;
            m_journal->DoRest();
            DoRestLater();
        },
        nullptr);
    m_bResting = timer->Start(m_journal->IsFailing() ? kTryAgain : kTrimOn, false);
}

void ZNodeJournal::OnShutdown() {
    if (m_journal && m_journal->IsFailing()) {
        m_journal->DoRest();
    }
}

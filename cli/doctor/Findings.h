#pragma once

#include <boost/json.hpp>
#include <string>
#include <vector>

namespace arborctl::doctor {

/// How one point of a set-up is.
enum class State {
    kOk,
    kWarning,  ///< it works, and somebody should know
    kFault,    ///< something that a person expects of the device does not work
    kUnknown   ///< could not be found out
};

/// What was found at one point, in one plain line; and, for what is not well, one line that says what to do.
struct Finding {
    std::string point;
    State state = State::kOk;
    std::string text;
    std::string advice{};
};

/// What was found, in order.
class Findings {
public:
    void Ok(const char* point, std::string text) { Add({point, State::kOk, std::move(text)}); }
    void Warning(const char* point, std::string text, std::string advice) {
        Add({point, State::kWarning, std::move(text), std::move(advice)});
    }
    void Fault(const char* point, std::string text, std::string advice) {
        Add({point, State::kFault, std::move(text), std::move(advice)});
    }
    void Unknown(const char* point, std::string text, std::string advice) {
        Add({point, State::kUnknown, std::move(text), std::move(advice)});
    }
    void Add(Finding finding) { m_all.push_back(std::move(finding)); }
    /// What another process found, as ToJson tells it; false when it is nothing of the kind.
    bool AddFrom(const boost::json::value& points);

    [[nodiscard]] const std::vector<Finding>& All() const { return m_all; }
    [[nodiscard]] std::size_t Count(State state) const;
    /// A list of {"point", "state", "text", "advice"}.
    [[nodiscard]] boost::json::array ToJson() const;
    /// For people: a line for each, its advice below it, and a summary.
    [[nodiscard]] std::string Text() const;

private:
    std::vector<Finding> m_all;
};

}  // namespace arborctl::doctor

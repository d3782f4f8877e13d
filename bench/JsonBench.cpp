#include <boost/json.hpp>

#include "Benches.h"
#include "ZMessages/Messages.h"
#include "ZMessages/ZJSONCommStream.h"

namespace json = boost::json;

namespace {

void Fill(InstallProgressMsg& message) {
    message.m_Header = "Installing 3.045";
    message.m_Message = "Writing the system image to the other slot";
    message.m_Percent = 42;
    message.m_bSpinner = true;
    message.m_SerialNumber = "KQ-240117";
}

/// The same members without the framework.
struct Plain {
    std::string header;
    std::string message;
    std::int32_t percent = 0;
    bool error = false;
    bool done = false;
    bool spinner = false;
    std::string operation;
    std::string serialNumber;
    ZDeviceModel model = ZDeviceModel::KiteQM;
};

std::string TextOfMessage() {
    InstallProgressMsg message;
    Fill(message);
    ZJSONCommStream stream;
    std::string text;
    message.Save(text, stream);
    return text;
}

std::string WritePlain(const Plain& from) {
    json::object object;
    object["className"] = "InstallProgressMsg";
    object["header"] = from.header;
    object["message"] = from.message;
    object["percent"] = from.percent;
    object["error"] = from.error;
    object["done"] = from.done;
    object["spinner"] = from.spinner;
    object["operation"] = from.operation;
    object["serialNumber"] = from.serialNumber;
    object["deviceModel"] = magic_enum::enum_name(from.model);
    return json::serialize(object);
}

void ReadPlain(std::string_view text, Plain& to) {
    const json::value value = json::parse(text);
    const json::object& object = value.get_object();
    const auto textAt = [&](const char* key) -> std::string_view { return object.at(key).as_string(); };
    to.header = textAt("header");
    to.message = textAt("message");
    to.percent = object.at("percent").to_number<std::int32_t>();
    to.error = object.at("error").as_bool();
    to.done = object.at("done").as_bool();
    to.spinner = object.at("spinner").as_bool();
    to.operation = textAt("operation");
    to.serialNumber = textAt("serialNumber");
    to.model = magic_enum::enum_cast<ZDeviceModel>(textAt("deviceModel")).value();
}

void WriteMessages(benchmark::State& state) {
    InstallProgressMsg message;
    Fill(message);
    ZJSONCommStream stream;
    std::string text;
    for ([[maybe_unused]] auto _ : state) {
        message.Save(text, stream);
        benchmark::DoNotOptimize(text);
    }
    CountItems(state, 1);
}

void WriteBare(benchmark::State& state) {
    Plain plain;
    ReadPlain(TextOfMessage(), plain);
    if (WritePlain(plain) != TextOfMessage()) {
        state.SkipWithError("the bare text differs from the message's");
    }
    for ([[maybe_unused]] auto _ : state) {
        std::string text = WritePlain(plain);
        benchmark::DoNotOptimize(text);
    }
    CountItems(state, 1);
}

void ReadMessages(benchmark::State& state) {
    const std::string text = TextOfMessage();
    InstallProgressMsg message;
    ZJSONCommStream stream;
    for ([[maybe_unused]] auto _ : state) {
        if (!message.Load(std::string_view(text), stream)) {
            state.SkipWithError("the text could not be read");
            break;
        }
    }
    CountItems(state, 1);
}

void ReadBare(benchmark::State& state) {
    const std::string text = TextOfMessage();
    Plain plain;
    for ([[maybe_unused]] auto _ : state) {
        ReadPlain(text, plain);
        benchmark::DoNotOptimize(plain);
    }
    CountItems(state, 1);
}

}  // namespace

void AddJson(Report& report) {
    Register("json/write/message", WriteMessages);
    Register("json/write/bare", WriteBare);
    Register("json/read/message", ReadMessages);
    Register("json/read/bare", ReadBare);
    report.Add({"progress message to JSON", "json/write/message", "json/write/bare", Quantity::Time, 1.3});
    report.Add({"progress message from JSON", "json/read/message", "json/read/bare", Quantity::Time, 1.3});
}

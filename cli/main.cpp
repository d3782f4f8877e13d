#include <CLI/CLI.hpp>
#include <chrono>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "Arguments.h"
#include "Commands.h"
#include "Interrupt.h"
#include "Result.h"
#include "Session.h"
#include "TextFormat.h"

namespace {

using arborctl::ExitCode;
using arborctl::Result;
using arborctl::Session;
using arborctl::WrongId;
using arborctl::WrongName;
using arborctl::WrongSince;
using arborctl::WrongVersion;

constexpr const char* kExamples = R"(Examples:
  arborctl status                              what the device runs, does and offers
  arborctl updates                             what can be installed, and what was refused and why
  arborctl history --since 2h                  what was done, by whom, and how it ended
  arborctl orders --result refused             who was refused what, and why
  arborctl doctor                              check the whole set-up, and say what to mend
  arborctl scan /media/usb1/arbor_qm.pkg       check this package file now
  arborctl install 3.046 --wait                install and show the progress to the end
  arborctl install 3.046 --no-reboot           start it, keep the device running afterwards
  arborctl watch --json | jq .event            events for a program
  arborctl send inventory                      any message of the device's interface
  arborctl upload build/arbor_qm.pkg           bring a package from here and have it checked
  arborctl ui                                  all of it in a browser
  arborctl peers                               other devices, and who is connected
  arborctl trust show                          whose packages the device takes
  arborctl transfer 3.046 --to 4711 --wait     carry a package over to an accessory

Exit status: 0 done, 1 the device said no, 2 usage, 3 not reachable (or broke off, or too late), 130 Ctrl-C.
"arborctl COMMAND --help" tells more about a command.)";

/// What the command line chose; the chosen subcommand sets `run`.
struct Choice {
    arborctl::Settings settings;
    double timeoutSeconds = 0;
    std::function<Result<ExitCode>(Session&)> run;

    std::string first;
    std::string second;
    bool list = false;
    bool noReboot = false;
    arborctl::HistoryOrder history;
    arborctl::OrdersOrder orders;
    arborctl::LogOrder log;
    arborctl::InstallOrder install;
    arborctl::AccessoryOrder accessory;
    arborctl::CompatibilityQuestion question;
    arborctl::UploadOrder upload;
    arborctl::VerifyOrder verify;
    arborctl::PairOrder pair;
    arborctl::PageOrder page;
};

void AddGlobalOptions(CLI::App& app, Choice& choice) {
    choice.settings.socketPath = "/run/arbor/gateway.sock";
    app.set_version_flag("--version", "arborctl " ARBORCTL_VERSION);
    app.add_flag("--json", choice.settings.json, "Output for programs: one document, or one a line for streams");
    app.add_option("--socket", choice.settings.socketPath, "The device's socket")
        ->envname("ARBORCTL_SOCKET")
        ->capture_default_str()
        ->type_name("PATH");
    app.add_option("--timeout", choice.timeoutSeconds,
                   "Longest wait for an answer (35), for news of a running operation (900), for a lost connection (60)")
        ->check(CLI::Range(0.1, 86400.0))
        ->type_name("SECONDS");
}

/// A subcommand with its examples below its help.
CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const std::string& examples) {
    CLI::App* command = app.add_subcommand(name, description);
    command->footer("Examples:\n" + examples);
    return command;
}

void AddQueries(CLI::App& app, Choice& choice) {
    AddCommand(app, "status", "Show what the device runs, starts next, does, offers and refused",
               "  arborctl status\n  arborctl status --json")
        ->callback([&] { choice.run = arborctl::ShowStatus; });
    AddCommand(app, "updates", "List the versions that can be installed, and the files that were refused",
               "  arborctl updates\n"
               "  arborctl updates --json      exact sizes, and the whole paths")
        ->callback([&] { choice.run = arborctl::ShowUpdates; });

    auto* doctor = AddCommand(app, "doctor", "Check the whole set-up, and say what to mend (exit status 1: a fault)",
                              "  arborctl doctor\n"
                              "  sudo arborctl doctor                      where you may not look at everything\n"
                              "  arborctl doctor --graph ./graph.json      before the device's host runs\n"
                              "  arborctl doctor --json | jq '.points[] | select(.state != \"ok\")'\n"
                              "Each point is ok, warning, fault or unknown. Looking changes nothing.");
    doctor
        ->add_option("--graph", choice.first,
                     "The graph file; else the one that the host tells, or "
                     "/etc/arbor/graph.json")
        ->type_name("FILE");
    doctor->callback([&] { choice.run = [&](Session& s) { return LookAtSetup(s, choice.first); }; });

    auto* compare = AddCommand(app, "compare", "Let the device compare two versions",
                               "  arborctl compare 4.001 3.046      prints 4.001 >= 3.046\n"
                               "The device compares by its own rule: the first component decides.");
    compare->add_option("A", choice.first, "A version")->required()->check(WrongVersion);
    compare->add_option("B", choice.second, "Another one")->required()->check(WrongVersion);
    compare->callback(
        [&] { choice.run = [&](Session& s) { return CompareVersions(s, choice.first, choice.second); }; });

    auto* check = AddCommand(app, "check", "Ask whether an accessory's version fits (exit status 1: it does not)",
                             "  arborctl check 3.044 --board verdin-imx8mm --model QMA");
    check->add_option("VERSION", choice.question.version, "The accessory's version")->required()->check(WrongVersion);
    check->add_option("--board", choice.question.board, "Its board")->required()->check(WrongName);
    check->add_option("--model", choice.question.model, "Its model, for example QMA")->check(WrongName);
    check->callback([&] { choice.run = [&](Session& s) { return CheckCompatibility(s, choice.question); }; });

    auto* send = AddCommand(app, "send", "Send a message and print the answer",
                            "  arborctl send getinstalledversioninfo\n"
                            "  arborctl send compareversions '{\"version1\": \"3.1\", \"version2\": \"2.9\"}'\n"
                            "  arborctl send scan @message.json\n"
                            "  echo '{}' | arborctl send deviceProps -\n"
                            "Messages between nodes, such as newFile, are not for people.");
    auto* keyword = send->add_option("KEYWORD", choice.first, "The keyword it is sent on");
    send->add_option("JSON", choice.second, "The message; - for standard input, @FILE for a file; nothing for {}");
    send->add_flag("--list", choice.list, "Only print the keywords that the device takes")->excludes(keyword);
    send->callback([&, keyword] {
        if (!choice.list && keyword->empty()) {
            throw CLI::RequiredError("KEYWORD");
        }
        choice.run = [&](Session& s) {
            return choice.list ? arborctl::ListKeywords(s) : SendMessage(s, choice.first, choice.second);
        };
    });
}

void AddWork(CLI::App& app, Choice& choice) {
    auto* scan = AddCommand(app, "scan", "Have the device check a package file now and tell the outcome",
                            "  arborctl scan /media/usb1/arbor_qm.pkg\n"
                            "  arborctl scan /media/usb1      all that is on the drive\n"
                            "Only files on drives and in the updates folder are checked; \"upload\" brings others.");
    scan->add_option("FILE", choice.first, "A package file, or a drive, as the device sees it")->required();
    scan->callback([&] { choice.run = [&](Session& s) { return Scan(s, choice.first); }; });

    auto* install = AddCommand(app, "install", "Install a version",
                               "  arborctl install 3.046 --wait\n"
                               "  arborctl install 3.046 --no-reboot --wait --json");
    install->add_option("VERSION", choice.install.version, "The version, as \"updates\" lists it")
        ->required()
        ->check(WrongVersion);
    install->add_flag("--no-reboot", choice.noReboot, "Do not restart the device afterwards");
    install->add_flag("--wait", choice.install.wait, "Show the progress and return when it has ended");
    install->add_option("--progress-host", choice.install.progressHost, "Device that the installer reports to")
        ->check(WrongName);
    install->callback([&] {
        choice.install.reboot = !choice.noReboot;
        choice.run = [&](Session& s) { return Install(s, choice.install); };
    });

    auto* upload =
        AddCommand(app, "upload", "Send a package file to the device, which checks it, and tell the outcome",
                   "  arborctl upload build/arbor_qm.pkg\n"
                   "  arborctl upload build/arbor_qm.pkg --no-check     return as soon as the device has it");
    upload->add_option("FILE", choice.upload.file, "A file of this machine")->required();
    upload->add_flag_callback(
        "--no-check", [&] { choice.upload.check = false; }, "Do not wait until the device has checked it");
    upload->callback([&] { choice.run = [&](Session& s) { return UploadFile(s, choice.upload); }; });
}

void AddAccessoryOptions(CLI::App& command, Choice& choice) {
    command.add_option("--to", choice.accessory.serialNumber, "Serial number of the accessory")
        ->required()
        ->check(WrongName);
    command.add_option("--model", choice.accessory.model, "Its model, for example QMA; else the device looks it up")
        ->check(WrongName);
    command.add_flag("--wait", choice.accessory.wait, "Show the progress and return when it has ended");
}

void AddAccessoryWork(CLI::App& app, Choice& choice) {
    auto* transfer = AddCommand(app, "transfer", "Carry the package of a version over to an accessory",
                                "  arborctl transfer 3.046 --to 4711 --wait");
    transfer->add_option("VERSION", choice.accessory.version, "The version")->required()->check(WrongVersion);
    AddAccessoryOptions(*transfer, choice);
    transfer->callback([&] { choice.run = [&](Session& s) { return Transfer(s, choice.accessory); }; });

    auto* remote = AddCommand(app, "remote-install", "Install the device's own version on an accessory",
                              "  arborctl remote-install --to 4711 --wait");
    AddAccessoryOptions(*remote, choice);
    remote->add_option("--version", choice.accessory.version, "The version, for the device's log")->check(WrongVersion);
    remote->callback([&] { choice.run = [&](Session& s) { return RemoteInstall(s, choice.accessory); }; });
}

void AddLink(CLI::App& app, Choice& choice) {
    AddCommand(app, "peers", "List the devices that this one knows", "  arborctl peers\n  arborctl peers --json")
        ->callback([&] { choice.run = arborctl::ShowPeers; });

    auto* pair = AddCommand(app, "pair", "Let another device in by its key; without a key, show this device's own",
                            "  arborctl pair                                     the keys, and who was turned away\n"
                            "  arborctl pair KEY --name palm                     let it in when it calls\n"
                            "  arborctl pair KEY --address tcp://10.77.0.1:5700  call it there\n"
                            "  arborctl pair KEY --remove                        let it in no longer\n"
                            "Both devices need the other's key. A new name and address replace those before.");
    auto* key = pair->add_option("KEY", choice.pair.publicKey, "The other device's key, 64 hexadecimal digits");
    auto* name = pair->add_option("--name", choice.pair.name, "What people call it")->needs(key);
    auto* address = pair->add_option("--address", choice.pair.address, "Where to call it; without, it calls")
                        ->type_name("tcp://HOST:PORT")
                        ->needs(key);
    pair->add_flag("--remove", choice.pair.remove, "Take its key away")->needs(key)->excludes(name)->excludes(address);
    pair->callback([&, key] {
        choice.run = [&, given = key->count() > 0](Session& s) { return given ? Pair(s, choice.pair) : ShowKeys(s); };
    });

    auto* keygen = AddCommand(app, "keygen", "Make a device's key pair and print its public key; needs no device",
                              "  arborctl keygen keys/4711.json      the device's \"keyFile\"");
    keygen->add_option("FILE", choice.first, "The file to make; there must be none")->required();
    keygen->callback([&] { choice.run = [&](Session& s) { return MakeKeyFile(s, choice.first); }; });

    auto* verify = AddCommand(app, "verify", "Say whether a package file is whole, signed and trusted; needs no device",
                              "  arborctl verify arbor_qm.pkg\n"
                              "  arborctl verify arbor_qm.pkg --trust /etc/arbor/trust --board verdin-imx8mm\n"
                              "Nothing of the file runs. A signature may lie beside it, as arbor_qm.pkg.sig.");
    verify->add_option("FILE", choice.verify.file, "The package file")->required();
    auto* trust = verify
                      ->add_option("--trust", choice.verify.trust,
                                   "Who is trusted: arbor-trust.json, or certificates (*.pem, *.crt)")
                      ->type_name("DIR");
    verify->add_option("--state", choice.verify.state, "Where an arbor-trust.json may lie that is newer")
        ->needs(trust)
        ->type_name("DIR");
    verify->add_flag("--development", choice.verify.development, "Accept development packages")->needs(trust);
    verify->add_option("--board", choice.verify.board, "The board that it has to be for")->needs(trust);
    verify->callback([&] { choice.run = [&](Session& s) { return VerifyPackage(s, choice.verify); }; });
}

void AddTrust(CLI::App& app, Choice& choice) {
    auto* trust = AddCommand(app, "trust", "Show whose packages the device takes, or bring it newer trust documents",
                             "  arborctl trust show                      what the device goes by\n"
                             "  arborctl trust show arbor-trust.json     what a file says; needs no device\n"
                             "  arborctl trust apply arbor-trust.json    have the device follow it");
    trust->require_subcommand(1);
    auto* show = trust->add_subcommand("show", "What the device goes by, or what a file says");
    auto* shown = show->add_option("FILE", choice.first, "A file of this computer");
    show->callback([&, shown] {
        choice.run = [&, isFile = shown->count() > 0](Session& s) {
            return isFile ? ShowTrustFile(s, choice.first) : arborctl::ShowTrust(s);
        };
    });
    auto* apply = trust->add_subcommand("apply", "Have the device follow the trust documents in a file");
    apply->add_option("FILE", choice.first, "A file of this computer")->required();
    apply->callback([&] { choice.run = [&](Session& s) { return ApplyTrust(s, choice.first); }; });
}

void AddTrial(CLI::App& app, Choice& choice) {
    AddCommand(app, "slots", "Show which version runs, whether it has proved itself, and which were taken back",
               "  arborctl slots\n  arborctl slots --json")
        ->callback([&] { choice.run = arborctl::ShowSlots; });
    AddCommand(app, "confirm", "Say that the version on trial works: the device stays with it", "  arborctl confirm")
        ->callback([&] { choice.run = arborctl::ConfirmVersion; });
    auto* revert = AddCommand(app, "revert", "Go back: from the version on trial, or from an install without a restart",
                              "  arborctl revert --reason \"no signal on channel 2\"");
    revert->add_option("--reason", choice.first, "For the journal, and for whoever asks later");
    revert->callback([&] { choice.run = [&](Session& s) { return RevertVersion(s, choice.first); }; });
    auto* allow = AddCommand(app, "allow", "Offer a version again that was taken back", "  arborctl allow 3.046");
    allow->add_option("VERSION", choice.first, "The version")->required()->check(WrongVersion);
    allow->callback([&] { choice.run = [&](Session& s) { return AllowVersion(s, choice.first); }; });
}

/// What narrows a list, whatever it is of.
template <typename Count>
void AddChoice(CLI::App& command, Count& lines, std::string& since) {
    command.add_option("-n,--lines", lines, "How many lines")->check(CLI::Range(1, 1000))->capture_default_str();
    command.add_option("--since", since, "Only from then on: 90s, 10m, 2h or 3d ago, or a date such as 2025-03-01")
        ->check(WrongSince)
        ->type_name("TIME");
}

void AddPage(CLI::App& app, Choice& choice) {
    auto* page = AddCommand(app, "ui", "Serve the device's page to a browser on this machine, until Ctrl-C",
                            "  arborctl ui                  tells an address, and opens it where there is a screen\n"
                            "  arborctl ui --port 8090      for ssh -L 8090:127.0.0.1:8090\n"
                            "The address holds a secret: who has it may do all that you may.");
    auto* port = page->add_option("--port", choice.page.port, "The port; else any that is free");
    page->add_flag("--network", choice.page.network, "Only tell where the device serves its page on the network")
        ->excludes(port);
    page->add_flag_callback(
        "--no-open", [&] { choice.page.open = false; }, "Only tell the address");
    page->callback([&] { choice.run = [&](Session& s) { return ServePage(s, choice.page); }; });
}

void AddJobs(CLI::App& app, Choice& choice) {
    auto* history = AddCommand(app, "history", "List what the device did and does, newest first",
                               "  arborctl history\n"
                               "  arborctl history --kind install --since 3d\n"
                               "  arborctl history --state failed -n 100\n"
                               "  arborctl history --state open        what is under way\n"
                               "  arborctl history --json | jq '.operations[].reason'");
    history->add_option("--kind", choice.history.kind, "Only jobs of this kind")
        ->check(CLI::IsMember(
            {"check", "scan", "install", "build", "transfer", "remote-install", "upload", "trust", "trial"}));
    history->add_option("--state", choice.history.state, "Only jobs in this state; open: those that have not ended")
        ->check(CLI::IsMember({"open", "queued", "running", "succeeded", "failed", "cancelled", "lost"}));
    AddChoice(*history, choice.history.count, choice.history.since);
    history->callback([&] { choice.run = [&](Session& s) { return ShowHistory(s, choice.history); }; });

    auto* show = AddCommand(app, "show", "Tell everything about one job",
                            "  arborctl show 1f3a9c02      an id, or its beginning, as \"history\" lists it");
    show->add_option("ID", choice.first, "The job's id")->required()->check(WrongId);
    show->callback([&] { choice.run = [&](Session& s) { return ShowJob(s, choice.first); }; });

    auto* cancel = AddCommand(app, "cancel", "Have the device end a job, and wait until it has ended",
                              "  arborctl cancel 1f3a9c02\n"
                              "After an install that was cancelled the version before stays. Exit status 1: the job\n"
                              "had ended already, or ended otherwise.");
    cancel->add_option("ID", choice.first, "The job's id")->required()->check(WrongId);
    cancel->callback([&] { choice.run = [&](Session& s) { return CancelJob(s, choice.first); }; });

    auto* forget = AddCommand(app, "forget", "Remove a file that was uploaded",
                              "  arborctl forget arbor_qm.pkg      its name, as \"updates\" lists it");
    forget->add_option("FILE", choice.first, "The file's name at the device")->required();
    forget->callback([&] { choice.run = [&](Session& s) { return ForgetUpload(s, choice.first); }; });
}

void AddOrders(CLI::App& app, Choice& choice) {
    auto* orders = AddCommand(app, "orders", "List what people ordered and what became of it, newest first",
                              "  arborctl orders\n"
                              "  arborctl orders --result refused --since 1d\n"
                              "  arborctl orders --user alice -n 100\n"
                              "  arborctl orders --json | jq '.orders[].reason'");
    orders->add_option("--result", choice.orders.result, "Only those that were accepted, or refused")
        ->check(CLI::IsMember({"accepted", "refused"}));
    orders->add_option("--user", choice.orders.user, "Only those of this user: a name or a number");
    AddChoice(*orders, choice.orders.count, choice.orders.since);
    orders->callback([&] { choice.run = [&](Session& s) { return ShowOrders(s, choice.orders); }; });
}

void AddStreams(CLI::App& app, Choice& choice) {
    AddCommand(app, "watch", "Show the device's events as they happen, until Ctrl-C",
               "  arborctl watch\n  arborctl watch --json")
        ->callback([&] { choice.run = arborctl::WatchEvents; });

    auto* log = AddCommand(app, "log", "Show the device's newest log lines",
                           "  arborctl log -n 50 --follow\n"
                           "  arborctl log --level warning --since 2h      only what went wrong lately\n"
                           "  arborctl log --json | jq .text");
    log->add_option("--level", choice.log.level, "Only lines of this level and above")
        ->check(CLI::IsMember(arborctl::LogLevels()))
        ->capture_default_str();
    AddChoice(*log, choice.log.lines, choice.log.since);
    log->add_flag("-f,--follow", choice.log.follow, "Go on with new lines, until Ctrl-C");
    log->callback([&] { choice.run = [&](Session& s) { return ShowLog(s, choice.log); }; });
}

/// Several arguments were too many; a command that there is not, most likely.
int RefuseExtras(const CLI::App& app, const CLI::ParseError& error) {
    const auto extras = app.remaining();
    if (!app.get_subcommands().empty() || extras.empty() || extras.front().starts_with('-')) {
        return app.exit(error) == 0 ? 0 : static_cast<int>(ExitCode::kUsage);
    }
    std::vector<std::string> names;
    for (const auto* command : app.get_subcommands(nullptr)) {
        names.push_back(command->get_name());
    }
    const std::string nearest = arborctl::Nearest(extras.front(), names);
    std::cerr << "arborctl: there is no command \"" << arborctl::Escaped(extras.front()) << "\""
              << (nearest.empty() ? "; arborctl --help lists them" : "; did you mean \"" + nearest + "\"?") << "\n";
    return static_cast<int>(ExitCode::kUsage);
}

int Run(int argc, char** argv) {
    Choice choice;
    CLI::App app("Talks to the software-update manager of an instrument.", "arborctl");
    app.footer(kExamples);
    app.require_subcommand(0, 1);  // none is told below, so that a mistyped one is named first
    app.fallthrough();
    AddGlobalOptions(app, choice);
    AddQueries(app, choice);
    AddJobs(app, choice);
    AddOrders(app, choice);
    AddWork(app, choice);
    AddAccessoryWork(app, choice);
    AddLink(app, choice);
    AddTrust(app, choice);
    AddTrial(app, choice);
    AddStreams(app, choice);
    AddPage(app, choice);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ExtrasError& error) {
        return RefuseExtras(app, error);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : static_cast<int>(ExitCode::kUsage);
    }
    if (!choice.run) {
        std::cerr << app.help();
        return static_cast<int>(ExitCode::kUsage);
    }
    if (choice.timeoutSeconds > 0) {
        const std::chrono::duration<double> seconds(choice.timeoutSeconds);
        choice.settings.timeout = std::chrono::duration_cast<std::chrono::milliseconds>(seconds);
    }
    Session session(choice.settings, std::cout, std::cerr);
    return session.Finish(choice.run(session));
}

/// A result that could not be written, because the disk is full, is none. That nobody reads it any more is no fault.
int WrittenOr(int status) {
    std::cout.flush();
    if (std::cout.good() || !arborctl::OutputHasReader()) {
        return status;
    }
    std::cerr << "arborctl: the output could not be written; is the disk full?\n";
    return status == 0 ? static_cast<int>(ExitCode::kUsage) : status;
}

}  // namespace

int main(int argc, char** argv) {
    arborctl::CatchInterrupts();
    try {
        return WrittenOr(Run(argc, argv));
    } catch (const std::exception& error) {
        std::cerr << "arborctl: " << error.what() << "\n";
        return static_cast<int>(ExitCode::kRefused);
    }
}

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "Commands.h"
#include "Interrupt.h"
#include "TextFormat.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZTrust/ZTrust.h"

namespace json = boost::json;

namespace arborctl {

namespace {

struct Finding {
    ZVerdict verdict;
    ZPackage package;
    std::string signer;
};

Result<ZFileDescriptor> Open(const std::string& file) {
    ZFileDescriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!opened) {
        return UsageFailure(Escaped(file) + ": " + std::strerror(errno));
    }
    return opened;
}

/// Reads the file itself; what is no package, by the signature that lies beside it.
Result<ZPackage::Result<ZPackage>> Read(const std::string& file, int descriptor) {
    auto package = ZPackage::Read(descriptor, &Interrupted);
    if (package || package.error().code != ZVerdictCode::NotPackage) {
        return package;
    }
    const ZFileDescriptor signature(open((file + ".sig").c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!signature && errno != ENOENT) {
        return UsageFailure(Escaped(file) + ".sig: " + std::strerror(errno));
    }
    return signature ? ZPackage::ReadDetached(descriptor, signature.Get(), &Interrupted) : package;
}

Result<Finding> Examine(const VerifyOrder& order) {
    const auto file = Open(order.file);
    if (!file) {
        return file.error();
    }
    ZTrustedSigners trusted;
    if (!order.trust.empty()) {
        auto loaded = ZTrustedSigners::Load(order.trust, order.state);
        if (!loaded) {
            return UsageFailure(Escaped(loaded.error().text));
        }
        trusted = std::move(*loaded);
    }
    auto package = Read(order.file, file->Get());
    if (!package) {
        return package.error();
    }
    if (!*package) {
        return Finding{package->error(), {}, {}};
    }
    Finding finding{{}, std::move(**package), {}};
    finding.signer = ZTrustedSigners::SignerName(finding.package);
    const ZTrustQuestion question{.board = order.board, .acceptsDevelopment = order.development};
    finding.verdict = order.trust.empty() ? ZTrustedSigners::CheckSignatures(finding.package)
                                          : trusted.Judge(finding.package, question);
    if (finding.verdict.IsGood() && finding.package.format == 2 && !finding.package.isDetached) {
        if (ZVerdict image = finding.package.CheckPayload(file->Get(), &Interrupted); !image.IsGood()) {
            finding.verdict = image;
        }
    }
    return finding;
}

json::object ToJson(const std::string& file, const Finding& finding) {
    const ZPackage& package = finding.package;
    json::object document{
        {"file", file}, {"verdict", ToText(finding.verdict.code)}, {"sentence", finding.verdict.sentence}};
    if (package.format != 0) {
        document["format"] = package.format;
        document["version"] = package.version;
        document["board"] = package.board;
        document["securityNumber"] = package.securityNumber;
        document["signer"] = finding.signer;
    }
    return document;
}

std::string GoodNews(const Finding& finding, bool isTrustAsked) {
    if (isTrustAsked) {
        return finding.verdict.sentence;
    }
    return "version " + finding.package.version + " for board " + finding.package.board + ", whole; signed by " +
           (finding.signer.empty() ? "a key without a name" : finding.signer) +
           "; whether that is somebody to trust, --trust DIR tells";
}

}  // namespace

Result<ExitCode> VerifyPackage(Session& session, const VerifyOrder& order) {
    const auto finding = Examine(order);
    if (Interrupted()) {
        return InterruptedByUser();
    }
    if (!finding) {
        return finding.error();
    }
    const json::object document = ToJson(order.file, *finding);
    const std::string subject = Escaped(order.file) + ": ";
    if (!finding->verdict.IsGood()) {
        return session.Refuse(document, subject + Escaped(finding->verdict.sentence));
    }
    session.Print(document, subject + "good: " + Escaped(GoodNews(*finding, !order.trust.empty())) + "\n");
    return ExitCode::kDone;
}

}  // namespace arborctl

#include "ZTrust/ZPackage.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "ZTrust/PackageHeader.h"
#include "ZTrust/Sha256.h"

using ztrust::ReadEnd;

namespace {

constexpr std::size_t kLargestDetached = std::size_t{128} * 1024;

ZVerdict Damaged(const std::string& why) {
    return {ZVerdictCode::Damaged, why};
}

/// What a read that was not complete means.
ZVerdict Unread(ReadEnd end) {
    switch (end) {
        case ReadEnd::FileEnded:
            return Damaged("it ended while it was read");
        case ReadEnd::Stopped:
            return {ZVerdictCode::Unreadable, "reading it was stopped"};
        default:
            return {ZVerdictCode::Unreadable, std::string("it can't be read: ") + std::strerror(errno)};
    }
}

ZPackage::Result<std::uint64_t> SizeOf(int file) {
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        return Unread(ReadEnd::Failed);
    }
    if (!S_ISREG(status.st_mode)) {
        return ZVerdict{ZVerdictCode::NotPackage, "it is no regular file"};
    }
    return static_cast<std::uint64_t>(status.st_size);
}

/// Reads stub, header and code into the package's head.
ZPackage::Result<ZPackage> ReadHead(int file, std::uint64_t size) {
    std::string begin;
    const std::uint64_t count = std::min<std::uint64_t>(size, ztrust::kStubSize + ztrust::kLargestHeader);
    if (const ReadEnd end = ztrust::ReadAt(file, 0, static_cast<std::size_t>(count), begin); end != ReadEnd::Complete) {
        return Unread(end);
    }
    const std::size_t lineEnd = begin.find('\n', ztrust::kStubSize);
    if (begin.size() < ztrust::kStubSize || lineEnd == std::string::npos) {
        return ZVerdict{ZVerdictCode::NotPackage, "it is no package: it has no header"};
    }
    const auto line = std::string_view(begin).substr(ztrust::kStubSize, lineEnd - ztrust::kStubSize);
    auto header = ztrust::ReadHeader(line);
    if (!header) {
        return header.error();
    }
    ZPackage package = std::move(header->package);
    std::string code;
    const auto codeSize = static_cast<std::size_t>(header->code.size);
    if (const ReadEnd end = ztrust::ReadAt(file, lineEnd + 1, codeSize, code); end != ReadEnd::Complete) {
        return Unread(end);
    }
    if (ztrust::Sha256Hex(code) != header->code.sha256) {
        return Damaged("the code in it is not the one that its header describes");
    }
    package.head = begin.substr(0, lineEnd + 1) + code;
    return package;
}

/// What lies behind the payload; an error when the file's size does not fit.
ZPackage::Result<std::string> ReadEndOf(const ZPackage& package, int file, std::uint64_t size, std::size_t most) {
    const std::uint64_t offset = package.PayloadOffset();
    const bool isThere = size > offset && package.payload.size < size - offset;
    if (!isThere || size - offset - package.payload.size > most) {
        return Damaged("it is not whole, or has a foreign end: its size is not what its header says");
    }
    const std::uint64_t begin = offset + package.payload.size;
    std::string bytes;
    if (const ReadEnd end = ztrust::ReadAt(file, begin, static_cast<std::size_t>(size - begin), bytes);
        end != ReadEnd::Complete) {
        return Unread(end);
    }
    return bytes;
}

/// Format 1 has one signature, over the digest of all that comes before it.
ZPackage::Result<ZPackage> ReadFirstFormat(ZPackage package, int file, std::uint64_t size,
                                           const ZPackage::StopQuestion& isStopped) {
    auto signature = ReadEndOf(package, file, size, ztrust::kLargestSignature);
    if (!signature) {
        return signature.error();
    }
    package.signatures.front().bytes = std::move(*signature);
    ztrust::Sha256 digest;
    digest.Add(package.head);
    if (const ReadEnd end = ztrust::AddFile(digest, file, package.PayloadOffset(), package.payload.size, isStopped);
        end != ReadEnd::Complete) {
        return Unread(end);
    }
    package.digest = digest.Hex();
    package.signedText = "arbor update package 1\n" + package.digest + "\n";
    return package;
}

/// Format 2 has its signatures behind the payload; they cover the head alone.
ZPackage::Result<ZPackage> ReadTrailer(ZPackage package, int file, std::uint64_t size) {
    const auto trailer = ReadEndOf(package, file, size, ztrust::kLargestTrailer);
    if (!trailer) {
        return trailer.error();
    }
    auto signatures = ztrust::ReadSignatures(*trailer);
    if (!signatures) {
        return signatures.error();
    }
    package.signatures = std::move(*signatures);
    package.digest = ztrust::Sha256Hex(package.head);
    package.signedText = "arbor update package 2\n" + package.digest + "\n";
    return package;
}

}  // namespace

ZPackage::Result<ZPackage> ZPackage::Read(int file, const StopQuestion& isStopped) {
    const auto size = SizeOf(file);
    if (!size) {
        return size.error();
    }
    auto package = ReadHead(file, *size);
    if (!package) {
        return package;
    }
    return package->format == 1 ? ReadFirstFormat(std::move(*package), file, *size, isStopped)
                                : ReadTrailer(std::move(*package), file, *size);
}

int ZPackage::FormatOf(int file) {
    const auto size = SizeOf(file);
    const auto package = size ? ReadHead(file, *size) : size.error();
    return package ? package->format : 0;
}

ZPackage::Result<ZPackage> ZPackage::ReadSecondFormat(int file) {
    const auto size = SizeOf(file);
    if (!size) {
        return size.error();
    }
    auto package = ReadHead(file, *size);
    if (package && package->format == 1) {
        return ZVerdict{ZVerdictCode::NotPackage,
                        "it is a package of format 1, whose signature can't be checked before it runs"};
    }
    return package ? ReadTrailer(std::move(*package), file, *size) : package;
}

ZPackage::Result<ZPackage> ZPackage::ReadSignature(int signature) {
    const auto length = SizeOf(signature);
    if (!length) {
        return length.error();
    }
    std::string text;
    const std::size_t read = static_cast<std::size_t>(std::min<std::uint64_t>(*length, kLargestDetached));
    if (const ReadEnd end = ztrust::ReadAt(signature, 0, read, text); end != ReadEnd::Complete) {
        return Unread(end);
    }
    const std::size_t first = text.find('\n');
    const std::size_t second = first == std::string::npos ? first : text.find('\n', first + 1);
    auto package = first < ztrust::kLargestHeader
                       ? ztrust::ReadDescription(std::string_view(text).substr(0, first))
                       : Result<ZPackage>(ZVerdict{ZVerdictCode::NotPackage, "what lies beside it is no signature"});
    if (!package) {
        return package;
    }
    if (*length > kLargestDetached) {
        return Damaged("the signature beside it is too large");
    }
    if (second == std::string::npos || second + 1 != text.size() || second - first - 1 > ztrust::kLargestTrailer) {
        return Damaged("the signature beside it is damaged: it is not two lines");
    }
    auto signatures = ztrust::ReadSignatures(std::string_view(text).substr(first + 1, second - first - 1));
    if (!signatures) {
        return signatures.error();
    }
    package->signatures = std::move(*signatures);
    package->digest = ztrust::Sha256Hex(std::string_view(text).substr(0, first));
    package->signedText = "arbor detached signature 2\n" + package->digest + "\n";
    return package;
}

ZPackage::Result<ZPackage> ZPackage::ReadDetached(int file, int signature, const StopQuestion& isStopped) {
    auto package = ReadSignature(signature);
    if (!package) {
        return package;
    }
    const auto size = SizeOf(file);
    if (!size) {
        return size.error();
    }
    if (*size != package->payload.size) {
        return Damaged("it is not the file that was signed: its size is another");
    }
    if (ZVerdict verdict = package->CheckPayload(file, isStopped); !verdict.IsGood()) {
        return verdict;
    }
    return package;
}

ZVerdict ZPackage::CheckPayload(int file, const StopQuestion& isStopped) const {
    ztrust::Sha256 found;
    if (const ReadEnd end = ztrust::AddFile(found, file, PayloadOffset(), payload.size, isStopped);
        end != ReadEnd::Complete) {
        return Unread(end);
    }
    if (found.Hex() != payload.sha256) {
        return Damaged(isDetached ? "it is not the file that was signed" : "the image in it is damaged");
    }
    return {};
}

const char* ToText(ZVerdictCode code) {
    static constexpr std::array kTexts{"good",    "unreadable",   "notPackage",    "damaged",    "badSignature",
                                       "weakKey", "wrongPurpose", "unknownSigner", "notAllowed", "tooFewSigners",
                                       "revoked", "belowFloor",   "wrongBoard"};
    return kTexts.at(static_cast<std::size_t>(code));
}

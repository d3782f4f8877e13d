// What the reader of packages in the framework finds: asked line by line, so that fuzz/agree can compare it with the
// builder's. "package<TAB>FILE<TAB>TRUST<TAB>STATE<TAB>BOARD<TAB>DEVELOPMENT" is answered with verdict and facts, and
// "chain<TAB>CHAIN<TAB>CURRENT" with what becomes of that chain of trust documents.

#include <fcntl.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <vector>

#include "ZShared/ZFileDescriptor.h"
#include "ZTrust/ZTrust.h"

namespace {

using Words = std::vector<std::string>;

std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

ZFileDescriptor Open(const std::string& path) {
    return ZFileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

const ZTrustedSigners& Trusted(const std::string& folder, const std::string& state) {
    static std::map<std::pair<std::string, std::string>, ZTrustedSigners> known;
    auto found = known.find({folder, state});
    if (found == known.end()) {
        found = known.emplace(std::pair(folder, state), ZTrustedSigners::Load(folder, state).value()).first;
    }
    return found->second;
}

std::string OnPackage(const Words& words) {
    const ZFileDescriptor file = Open(words.at(1));
    auto package = ZPackage::Read(file.Get());
    const ZFileDescriptor beside = Open(words.at(1) + ".sig");
    if (!package && package.error().code == ZVerdictCode::NotPackage && beside) {
        package = ZPackage::ReadDetached(file.Get(), beside.Get());
    }
    if (!package) {
        return ToText(package.error().code);
    }
    const ZVerdict verdict = Trusted(words.at(2), words.at(3))
                                 .Judge(*package, {.board = words.at(4), .acceptsDevelopment = words.at(5) == "yes"});
    const bool isWhole = package->CheckPayload(file.Get()).IsGood() || package->format == 1 || package->isDetached;
    return std::string(ToText(verdict.code)) + ' ' + std::to_string(package->format) + ' ' + package->version + ' ' +
           package->board + ' ' + std::to_string(package->securityNumber) + ' ' + package->digest +
           (isWhole ? " good" : " bad");
}

std::string OnChain(const Words& words) {
    const auto before = ZTrustChain::Parse(words.at(2).empty() ? "" : Content(words.at(2)));
    const ZTrustDocument* const inForce = before ? &before->Last() : nullptr;
    const std::string number = std::to_string(inForce != nullptr ? inForce->number : 0);
    const auto chain = ZTrustChain::Parse(Content(words.at(1)));
    if (!chain) {
        return "damaged " + number;
    }
    const auto isNew = chain->ContinuesFrom(inForce);
    return !isNew   ? "refused " + number
           : *isNew ? "followed " + std::to_string(chain->Last().number)
                    : "nothingNew " + number;
}

}  // namespace

int main() {
    for (std::string line; std::getline(std::cin, line);) {
        Words words;
        std::istringstream parts(line + '\t');
        for (std::string word; std::getline(parts, word, '\t');) {
            words.push_back(word);
        }
        std::cout << (words.at(0) == "chain" ? OnChain(words) : OnPackage(words)) << std::endl;
    }
    return 0;
}

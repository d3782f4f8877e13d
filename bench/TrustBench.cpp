#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "Benches.h"
#include "Command.h"
#include "Nodes.h"
#include "PackageTrust.h"

namespace fs = std::filesystem;

// What it costs to read a package before it runs, and a whole check under a trust policy.

namespace {

constexpr const char* kBoard = "verdin-imx8mm";
constexpr std::size_t kHead = std::size_t{128} * 1024;
constexpr auto kPatience = std::chrono::seconds(60);

/// Packages of a signer whom the folder "trust" has, made once.
struct Packages {
    Packages() : settings(scratch) {
        fs::create_directories(scratch / "trust");
        fs::create_directories(scratch / "state");
        Tool("keygen --out " + (scratch / "keys").string());
        fs::copy(scratch / "keys/cert.pem", scratch / "trust/cert.pem");
        small = Build("small", std::uint64_t{64} << 20U);
        large = Build("large", std::uint64_t{5} << 30U);
        settings.record->m_TrustedSigners = ToZString((scratch / "trust").string());
        settings.record->m_TrustState = ToZString((scratch / "state").string());
    }

    /// A package with a payload of zeros.
    fs::path Build(const std::string& name, std::uint64_t size) const {
        const fs::path image = scratch / (name + ".img");
        std::ofstream(image).close();
        fs::resize_file(image, size);
        const fs::path package = scratch / ("drive/" + name + ".pkg");
        fs::create_directories(package.parent_path());
        Tool("build --version 3.045 --board " + std::string(kBoard) + " --payload " + image.string() + " --key " +
             (scratch / "keys/key.pem").string() + " --cert " + (scratch / "keys/cert.pem").string() + " -o " +
             package.string());
        fs::remove(image);
        return package;
    }

    static void Tool(const std::string& arguments) {
        if (std::system((ARBOR_PKG " " + arguments + " > /dev/null").c_str()) != 0) {
            throw std::runtime_error("arbor-pkg " + arguments);
        }
    }

    Scratch scratch;
    InstallSettings settings;
    fs::path small;
    fs::path large;
};

const Packages& ThePackages() {
    static const Packages packages;
    return packages;
}

/// The verdict alone, on a file that is open.
void Judge(benchmark::State& state, bool large) {
    const Packages& packages = ThePackages();
    const auto signers = ZTrustedSigners::Load((packages.scratch / "trust").string());
    for ([[maybe_unused]] auto _ : state) {
        const ZFileDescriptor file(::open((large ? packages.large : packages.small).c_str(), O_RDONLY | O_CLOEXEC));
        const auto package = ZPackage::ReadSecondFormat(file.Get());
        if (!signers || !package || !signers->Judge(*package, {.board = kBoard}).IsGood()) {
            state.SkipWithError("the package was not judged good");
            break;
        }
    }
    CountItems(state, 1);
}

/// As the node does it: the file is read by a process of its own, and what will run is sealed.
void Approve(benchmark::State& state, bool large) {
    const Packages& packages = ThePackages();
    const PackageTrust trust({.signers = packages.scratch / "trust", .state = packages.scratch / "state"});
    for ([[maybe_unused]] auto _ : state) {
        auto opened = trust.Open(large ? packages.large : packages.small, kPatience);
        if (!opened || !trust.Approve(std::move(*opened), kBoard)) {
            state.SkipWithError("the package was not approved");
            break;
        }
    }
    CountItems(state, 1);
}

/// The file's first bytes read and hashed, and one signature that fits.
void JudgeBare(benchmark::State& state) {
    EVP_PKEY* const key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    std::array<unsigned char, 64> signature{};
    std::array<unsigned char, 32> digest{};
    std::size_t size = signature.size();
    EVP_DigestSignInit(context, nullptr, nullptr, nullptr, key);
    EVP_DigestSign(context, signature.data(), &size, digest.data(), digest.size());
    std::vector<unsigned char> bytes(kHead);
    for ([[maybe_unused]] auto _ : state) {
        const ZFileDescriptor file(::open(ThePackages().small.c_str(), O_RDONLY | O_CLOEXEC));
        std::array<unsigned char, 32> found{};
        unsigned length = 0;
        const bool read = ::read(file.Get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
        EVP_Digest(bytes.data(), bytes.size(), found.data(), &length, EVP_sha256(), nullptr);
        EVP_MD_CTX_reset(context);
        EVP_DigestVerifyInit(context, nullptr, nullptr, nullptr, key);
        if (!read || EVP_DigestVerify(context, signature.data(), size, digest.data(), digest.size()) != 1) {
            state.SkipWithError("the bare check failed");
            break;
        }
    }
    CountItems(state, 1);
    EVP_MD_CTX_free(context);
    EVP_PKEY_free(key);
}

void CheckWithNode(benchmark::State& state) {
    const Packages& packages = ThePackages();
    packages.settings.UseMachine();
    const auto node = MakeInstallNode(packages.settings);
    for ([[maybe_unused]] auto _ : state) {
        auto rejected = Z_MAKE(ZMessageArray);
        if (!node->CheckPackageFile(packages.small, rejected) || !rejected->m_Messages.empty()) {
            state.SkipWithError("the node rejected the package");
            break;
        }
    }
    CountItems(state, 1);
}

/// The file hashed by OpenSSL, and the package's two commands with nothing around them.
void CheckBare(benchmark::State& state) {
    const std::string file = ThePackages().small.string();
    const std::string trust = "ARBOR_TRUST=" + (ThePackages().scratch / "trust").string() + " ";
    for ([[maybe_unused]] auto _ : state) {
        if (!RunBare("openssl dgst -sha256 " + file) || !RunBare(trust + file + " --version") ||
            !RunBare(trust + file + " --verify " + kBoard)) {
            state.SkipWithError("the bare check failed");
            break;
        }
    }
    CountItems(state, 1);
}

}  // namespace

void AddTrust(Report& report) {
    Register("trust/64M/judge", [](benchmark::State& state) { Judge(state, false); });
    Register("trust/5G/judge", [](benchmark::State& state) { Judge(state, true); });
    Register("trust/64M/approve", [](benchmark::State& state) { Approve(state, false); });
    Register("trust/5G/approve", [](benchmark::State& state) { Approve(state, true); });
    Register("trust/bare", JudgeBare);
    Register("trust/check/node", CheckWithNode);
    Register("trust/check/bare", CheckBare);
    report.Add({"trust: a package of 64 MiB judged", "trust/64M/judge", "trust/bare", Quantity::Time, 2});
    report.Add({"trust: a package of 5 GiB judged", "trust/5G/judge", "trust/bare", Quantity::Time, 2});
    report.Add({"trust: 64 MiB, by a process of its own", "trust/64M/approve", "trust/bare", Quantity::Time, 2});
    report.Add({"trust: 5 GiB, by a process of its own", "trust/5G/approve", "trust/bare", Quantity::Time, 2});
    report.Add({"trust: a package of 64 MiB checked", "trust/check/node", "trust/check/bare", Quantity::Time, 1.3});
}

#include "ResourceKit/FileCheck.h"

#include "ResourceKit/FileCheckInternal.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <memory>
#include <new>
#include <system_error>
#include <vector>

namespace Halvex::Kit {

namespace {

using Verdict = FileFinding::Verdict;

constexpr std::size_t kPieceBytes = 256 * 1024;

/// The SHA-256 of what it is given, piece by piece.
class Sha256 {
public:
    Sha256() : m_context(EVP_MD_CTX_new()) {
        if (!m_context || EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1)
            throw std::bad_alloc();
    }

    void Add(const void* data, std::size_t size) { EVP_DigestUpdate(m_context.get(), data, size); }

    std::string Digits() {
        constexpr char kDigits[] = "0123456789abcdef";
        std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
        unsigned size = 0;
        EVP_DigestFinal_ex(m_context.get(), bytes.data(), &size);
        std::string digits;
        for (unsigned i = 0; i < size; ++i) {
            digits += kDigits[bytes[i] / 16];
            digits += kDigits[bytes[i] % 16];
        }
        return digits;
    }

private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };

    const std::unique_ptr<EVP_MD_CTX, Free> m_context;
};

/// Good: the digits are there.
struct Sum {
    Verdict verdict = Verdict::Good;
    std::string digits;
};

Sum SumOf(const OpenFile& file, const StopQuery& stop) {
    Sha256 hash;
    std::vector<char> buffer(kPieceBytes);
    while (true) {
        if (stop && stop())
            return {Verdict::Stopped, {}};
        const ssize_t count = file.Read(buffer);
        if (count < 0)
            return {Verdict::Unreadable, {}};
        if (count == 0)
            return {Verdict::Good, hash.Digits()};
        hash.Add(buffer.data(), static_cast<std::size_t>(count));
    }
}

FileFinding NotOpened(int error) {
    const bool missing = error == ENOENT || error == ENOTDIR;
    return {missing ? Verdict::Missing : Verdict::Unreadable,
            missing ? "missing" : "unreadable: " + std::generic_category().message(error)};
}

FileFinding CompareSizes(std::uint64_t size, std::uint64_t expected) {
    if (size == expected)
        return {};
    const bool isShort = size < expected;
    return {isShort ? Verdict::Short : Verdict::Long,
            std::string(isShort ? "short: " : "long: ") + std::to_string(size) +
                " bytes instead of " + std::to_string(expected)};
}

std::string LowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

} // namespace

FileFinding CheckFile(const App::ioPath& path, const ExpectedFile& expected,
                      const StopQuery& stop) {
    return CheckOpenFile(OpenFile(path), expected, stop);
}

FileFinding CheckOpenFile(const OpenFile& file, const ExpectedFile& expected,
                          const StopQuery& stop) {
    if (file.Error() != 0)
        return NotOpened(file.Error());
    const std::optional<std::uint64_t> size = file.Size();
    if (!size)
        return {Verdict::Unreadable, "unreadable: no regular file"};
    FileFinding finding = CompareSizes(*size, expected.size.value_or(*size));
    if (finding.verdict != Verdict::Good || expected.sha256.empty())
        return finding;
    const Sum sum = SumOf(file, stop);
    if (sum.verdict == Verdict::Stopped)
        return {Verdict::Stopped, "stopped before all was read"};
    if (sum.verdict == Verdict::Unreadable)
        return {Verdict::Unreadable, "unreadable: a read failed"};
    if (sum.digits == LowerCase(expected.sha256))
        return {};
    return {Verdict::Different,
            "different: its sha256 is " + sum.digits + " instead of " + LowerCase(expected.sha256)};
}

std::optional<std::string> Sha256OfFile(const App::ioPath& path, const StopQuery& stop) {
    const OpenFile file(path);
    if (file.Error() != 0 || !file.Size())
        return std::nullopt;
    Sum sum = SumOf(file, stop);
    if (sum.verdict != Verdict::Good)
        return std::nullopt;
    return std::move(sum.digits);
}

} // namespace Halvex::Kit

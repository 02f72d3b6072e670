#include "ArchiveWriter.h"
#include "DiskCalls.h"
#include "FolderTree.h"
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/PostProcessorUnpack.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <system_error>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Halvex::Kit {
namespace {

using Halvex::Testing::ArchiveWriter;
using Halvex::Testing::DiskCalls;
using Halvex::Testing::FolderOnAnotherFileSystem;
using Halvex::Testing::FolderTree;
using Halvex::Testing::kSanitized;
using Halvex::Testing::SomeBytes;
using Halvex::Testing::TemporaryFolder;

/// Whether this process may watch another one at all.
bool MayWatch() {
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1);
    int status = 1;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

void Command(__ptrace_request request, pid_t process, unsigned long data) {
    if (::ptrace(request, process, nullptr, data) != 0)
        throw std::system_error(errno, std::generic_category(), "ptrace");
}

/// Runs work in a child process, which is killed when it is about to make its n-th system call,
/// counted from 1. True: it was; false: it has made fewer, and the work is done.
bool IsKilledAt(std::size_t n, const std::function<void()>& work) {
    const pid_t child = ::fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
        work();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    Command(PTRACE_SETOPTIONS, child, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    constexpr int kSystemCall = SIGTRAP | 0x80;
    // The call stops twice, when it begins and when it has been made.
    for (std::size_t stops = 0; stops < 2 * n - 1;) {
        Command(PTRACE_SYSCALL, child, 0);
        ::waitpid(child, &status, 0);
        if (WIFEXITED(status))
            return false;
        if (!WIFSTOPPED(status))
            throw std::runtime_error("the child process has died of something else");
        if (WSTOPSIG(status) == kSystemCall)
            ++stops;
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return true;
}

class PostProcessorUnpackThatIsKilled : public testing::Test {
protected:
    PostProcessorUnpackThatIsKilled() {
        m_descriptor.downloadPath = m_downloads / "archive";
        ArchiveWriter(m_descriptor.downloadPath, "zip")
            .File("a", "new")
            .File("folder/b", "new")
            .File("folder/c", "new")
            .Link("link", "folder");
    }

    void SetUp() override {
        if (!MayWatch())
            GTEST_SKIP() << "this process may not watch another one";
    }

    void MakeOldFolder() const {
        std::filesystem::remove_all(Target().string());
        m_folder.Write("target/a", "old");
        m_folder.Write("target/folder/b", "old");
        m_folder.Write("target/old/d", "old");
    }
    std::int32_t Unpack() const {
        PostProcessorUnpack processor(
            [this](const auto&) {
                return PostProcessorUnpack::Target{Target(), {}};
            },
            {});
        return processor.Process(&m_descriptor);
    }
    ioPath Target() const { return m_folder / "target"; }
    /// Kills the work at each of its calls, or at some of them where that takes long, and counts
    /// what is there then. After each, an unpacking that is not killed leaves all as it is to be.
    std::map<std::string, std::size_t> KillEverywhere(const std::function<void()>& prepare,
                                                      const std::function<void()>& work) const {
        constexpr std::size_t kStep = kSanitized ? 3 : 1;
        std::map<std::string, std::size_t> found;
        for (std::size_t call = 1;; call += kStep) {
            SCOPED_TRACE(call);
            prepare();
            if (!IsKilledAt(call, work))
                break;
            found[Target().exists() ? FolderTree(Target()) : "missing"] += kStep;
            EXPECT_EQ(Unpack(), 0);
            EXPECT_EQ(FolderTree(m_folder.Path()),
                      "target/ target/a=new target/folder/ target/folder/b=new "
                      "target/folder/c=new target/link->folder");
        }
        EXPECT_EQ(FolderTree(Target()), m_new);
        return found;
    }

    const std::string m_old = "a=old folder/ folder/b=old old/ old/d=old";
    const std::string m_new = "a=new folder/ folder/b=new folder/c=new link->folder";
    const TemporaryFolder m_downloads;
    /// In memory on most machines: hundreds of waits for a disk that others use too take minutes.
    const TemporaryFolder m_folder{FolderOnAnotherFileSystem()};
    App::ResourceDescriptor m_descriptor;
};

using testing::Gt;
using testing::Pair;
using testing::UnorderedElementsAre;

TEST_F(PostProcessorUnpackThatIsKilled, LeavesTheOldFolderOrTheNewOne) {
    const auto found = KillEverywhere([this] { MakeOldFolder(); }, [this] { Unpack(); });
    EXPECT_THAT(found, UnorderedElementsAre(Pair(m_old, Gt(50U)), Pair(m_new, Gt(10U))));
}

TEST_F(PostProcessorUnpackThatIsKilled, LeavesNoFolderOrAWholeOneWhereThereWasNone) {
    const auto found = KillEverywhere([this] { std::filesystem::remove_all(Target().string()); },
                                      [this] { Unpack(); });
    EXPECT_THAT(found, UnorderedElementsAre(Pair("missing", Gt(50U)), Pair(m_new, Gt(0U))));
}

TEST_F(PostProcessorUnpackThatIsKilled, LeavesNoMixWhereFoldersCannotBeExchanged) {
    const auto found = KillEverywhere([this] { MakeOldFolder(); },
                                      [this] {
                                          DiskCalls calls;
                                          calls.renameErrors = {EINVAL};
                                          Unpack();
                                      });
    for (const auto& [tree, count] : found)
        EXPECT_TRUE(tree == m_old || tree == m_new || tree == "missing") << tree;
    EXPECT_GT(found.at(m_old), 50U);
    EXPECT_GT(found.at(m_new), 10U);
}

} // namespace
} // namespace Halvex::Kit

#include "ResourceKit/PostProcessorUnpack.h"

#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/Complaint.h"
#include "ResourceKit/EntryTree.h"
#include "ResourceKit/FileCheckInternal.h"
#include "ResourceKit/StagingFolder.h"
#include "ResourceKit/Text.h"

#include <archive.h>
#include <archive_entry.h>
#include <glog/logging.h>

#include <clocale>
#include <exception>
#include <string>
#include <utility>

namespace Halvex::Kit {

namespace {

constexpr std::int32_t kUnpacked = 0;
constexpr std::int32_t kRefused = 1;
constexpr std::size_t kPieceBytes = 256 * 1024;
constexpr char kStopped[] = "it has been told to stop";

/// While it lives, names are UTF-8 for what runs on this thread. libarchive gives names outside of
/// ASCII in the character set of the locale, and an application need not have chosen any.
class Utf8Names {
public:
    Utf8Names()
        : m_utf8(::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr))),
          m_before(::uselocale(m_utf8)) {}
    ~Utf8Names() {
        ::uselocale(m_before);
        if (m_utf8 != nullptr)
            ::freelocale(m_utf8);
    }

    Utf8Names(const Utf8Names&) = delete;
    Utf8Names& operator=(const Utf8Names&) = delete;

private:
    /// Null where the system does not know it: then the locale stays as it is.
    const locale_t m_utf8;
    const locale_t m_before;
};

struct FreeReader {
    void operator()(archive* reader) const { archive_read_free(reader); }
};
using Reader = std::unique_ptr<archive, FreeReader>;

/// Reads the formats that are promised, and no others: some would start helper programs.
Reader MakeReader() {
    Reader reader(archive_read_new());
    archive_read_support_format_tar(reader.get());
    archive_read_support_format_zip_seekable(reader.get());
    archive_read_support_filter_gzip(reader.get());
    archive_read_support_filter_bzip2(reader.get());
    archive_read_support_filter_xz(reader.get());
    archive_read_support_filter_zstd(reader.get());
    return reader;
}

std::string ErrorOf(archive* reader) {
    const char* text = archive_error_string(reader);
    return text == nullptr ? "it is broken" : text;
}

std::string TextOrNothing(const char* text) {
    return text == nullptr ? "" : text;
}

Complaint CopyContent(archive* reader, EntryTree& tree, const StopQuery& stop) {
    while (true) {
        if (stop && stop())
            return kStopped;
        const void* data = nullptr;
        std::size_t size = 0;
        la_int64_t offset = 0;
        const int result = archive_read_data_block(reader, &data, &size, &offset);
        if (result != ARCHIVE_OK && result != ARCHIVE_EOF)
            return ErrorOf(reader);
        // At the end the offset is where the file ends, which may be behind its last hole.
        if (result == ARCHIVE_EOF)
            size = 0;
        if (Complaint complaint = tree.Write(static_cast<const char*>(data), size,
                                             static_cast<std::uint64_t>(offset)))
            return complaint;
        if (result == ARCHIVE_EOF)
            return {};
    }
}

Complaint AddEntry(archive* reader, archive_entry* entry, EntryTree& tree, const StopQuery& stop) {
    const std::string path = TextOrNothing(archive_entry_pathname(entry));
    if (archive_entry_is_encrypted(entry) != 0)
        return "it is encrypted";
    const bool isFile =
        archive_entry_hardlink(entry) == nullptr && archive_entry_filetype(entry) == AE_IFREG;
    // It would be skipped, however long it is, without the limits and without a way to stop.
    if (!isFile && archive_entry_size(entry) > 0)
        return "it has content, and is no file";
    if (const char* target = archive_entry_hardlink(entry))
        return tree.AddHardLink(path, target);
    switch (archive_entry_filetype(entry)) {
    case AE_IFDIR:
        return tree.AddFolder(path);
    case AE_IFLNK:
        return tree.AddSymbolicLink(path, TextOrNothing(archive_entry_symlink(entry)));
    case AE_IFREG:
        if (Complaint complaint = tree.AddFile(path, archive_entry_perm(entry)))
            return complaint;
        return CopyContent(reader, tree, stop);
    default:
        return "it is neither a file nor a folder nor a link";
    }
}

Complaint AddEntries(archive* reader, EntryTree& tree, const StopQuery& stop) {
    while (true) {
        if (stop && stop())
            return kStopped;
        archive_entry* entry = nullptr;
        const int result = archive_read_next_header(reader, &entry);
        if (result == ARCHIVE_EOF)
            return {};
        // A warning too is about something that would not be as the archive has it.
        if (result != ARCHIVE_OK)
            return ErrorOf(reader);
        if (Complaint complaint = AddEntry(reader, entry, tree, stop))
            return "entry \"" + TextOrNothing(archive_entry_pathname(entry)) + "\": " + *complaint;
    }
}

} // namespace

struct HALVEX_HIDDEN PostProcessorUnpack::Impl {
    Complaint Unpack(const App::ioPath& file, const Target& target) const {
        const OpenFile archive(file);
        const FileFinding finding = CheckOpenFile(archive, target.archive, stop);
        if (finding.verdict != FileFinding::Verdict::Good)
            return finding.message;
        if (!archive.Rewind())
            return "it cannot be read twice";
        StagingFolder staging;
        if (Complaint complaint = staging.Make(target.folder.string()))
            return complaint;
        EntryTree tree(staging.Descriptor(), limits);
        if (Complaint complaint = UnpackTo(tree, archive))
            return complaint;
        return staging.TakePlace();
    }

    Complaint UnpackTo(EntryTree& tree, const OpenFile& file) const {
        const Utf8Names names;
        const Reader reader = MakeReader();
        if (archive_read_open_fd(reader.get(), file.Descriptor(), kPieceBytes) != ARCHIVE_OK)
            return ErrorOf(reader.get());
        return AddEntries(reader.get(), tree, stop);
    }

    const TargetQuery findTarget;
    const Limits limits;
    const StopQuery stop;
};

PostProcessorUnpack::PostProcessorUnpack(TargetQuery findTarget, const Limits& limits,
                                         StopQuery stop)
    : m_impl(new Impl{std::move(findTarget), limits, std::move(stop)}) {}

PostProcessorUnpack::~PostProcessorUnpack() = default;

std::int32_t PostProcessorUnpack::Process(const App::ResourceDescriptor* descriptor) {
    const std::optional<Target> target = m_impl->findTarget(*descriptor);
    if (!target)
        return kUnpacked;
    Complaint complaint;
    try {
        complaint = m_impl->Unpack(descriptor->downloadPath, *target);
    } catch (const std::exception& exception) {
        complaint = exception.what();
    }
    if (!complaint)
        return kUnpacked;
    LOG(ERROR) << "cannot unpack " << descriptor->downloadPath << " to " << target->folder << ": "
               << Printable(*complaint);
    return kRefused;
}

} // namespace Halvex::Kit

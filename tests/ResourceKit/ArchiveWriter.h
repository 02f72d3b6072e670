#pragma once

#include "Foundation/ioPath.h"

#include <archive.h>
#include <archive_entry.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace Halvex::Testing {

/// Writes an archive, entry by entry, whatever the entries are. The destructor completes it. Throws
/// when something cannot be written.
class ArchiveWriter {
public:
    /// The format and the compression by libarchive's names: "zip", "pax", "gzip".
    ArchiveWriter(const ioPath& path, const std::string& format,
                  const std::string& compression = {}, const std::string& options = {})
        : m_archive(archive_write_new()) {
        Check(archive_write_set_format_by_name(m_archive.get(), format.c_str()));
        if (!compression.empty())
            Check(archive_write_add_filter_by_name(m_archive.get(), compression.c_str()));
        Check(archive_write_set_options(m_archive.get(), options.c_str()));
        Check(archive_write_set_passphrase(m_archive.get(), "secret"));
        Check(archive_write_set_bytes_in_last_block(m_archive.get(), 1));
        Check(archive_write_open_filename(m_archive.get(), path.string().c_str()));
    }
    ~ArchiveWriter() { archive_write_close(m_archive.get()); }

    ArchiveWriter(const ArchiveWriter&) = delete;
    ArchiveWriter& operator=(const ArchiveWriter&) = delete;

    ArchiveWriter& File(const std::string& path, const std::string& content,
                        unsigned permissions = 0644) {
        return Add(path, AE_IFREG, permissions, content);
    }
    ArchiveWriter& Folder(const std::string& path) { return Add(path, AE_IFDIR, 0755); }
    ArchiveWriter& Link(const std::string& path, const std::string& target) {
        return Add(path, AE_IFLNK, 0777, {},
                   [&](archive_entry* entry) { archive_entry_set_symlink(entry, target.c_str()); });
    }
    ArchiveWriter& HardLink(const std::string& path, const std::string& target) {
        return Add(path, AE_IFREG, 0644, {}, [&](archive_entry* entry) {
            archive_entry_set_hardlink(entry, target.c_str());
        });
    }
    /// A file of this size with nothing in it.
    ArchiveWriter& Hole(const std::string& path, std::int64_t size) {
        return Add(path, AE_IFREG, 0644, {}, [&](archive_entry* entry) {
            archive_entry_set_size(entry, size);
            archive_entry_sparse_add_entry(entry, 0, 0);
        });
    }
    /// A device or the like.
    ArchiveWriter& Special(const std::string& path, unsigned type) { return Add(path, type, 0644); }

private:
    struct Free {
        void operator()(archive* written) const { archive_write_free(written); }
        void operator()(archive_entry* entry) const { archive_entry_free(entry); }
    };

    void Check(int result) {
        if (result != ARCHIVE_OK)
            throw std::runtime_error(archive_error_string(m_archive.get()));
    }

    ArchiveWriter& Add(
        const std::string& path, unsigned type, unsigned permissions,
        const std::string& content = {},
        const std::function<void(archive_entry*)>& vary = [](archive_entry*) {}) {
        const std::unique_ptr<archive_entry, Free> entry(archive_entry_new());
        archive_entry_set_pathname_utf8(entry.get(), path.c_str());
        archive_entry_set_filetype(entry.get(), type);
        archive_entry_set_perm(entry.get(), permissions);
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
        vary(entry.get());
        Check(archive_write_header(m_archive.get(), entry.get()));
        if (archive_write_data(m_archive.get(), content.data(), content.size()) !=
            static_cast<la_ssize_t>(content.size()))
            throw std::runtime_error(archive_error_string(m_archive.get()));
        return *this;
    }

    const std::unique_ptr<archive, Free> m_archive;
};

} // namespace Halvex::Testing

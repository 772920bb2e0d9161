// The functions of the system's archive library (libarchive) that the program calls, bound the
// first time an update or a compressed package list is read: most commands never open an archive,
// and the library and its compressors are a good part of a cold start. The table lives as long as
// the program; it may be used from several threads.
#pragma once
#include <archive.h>
#include <archive_entry.h>
#include <expected>
#include <string>

namespace vantle {

struct ArchiveCalls {
    decltype(&::archive_read_new) read_new;
    decltype(&::archive_read_free) read_free;
    decltype(&::archive_read_support_filter_all) read_support_filter_all;
    decltype(&::archive_read_support_format_all) read_support_format_all;
    decltype(&::archive_read_support_format_raw) read_support_format_raw;
    decltype(&::archive_read_open_memory) read_open_memory;
    decltype(&::archive_read_open_filename) read_open_filename;
    decltype(&::archive_read_next_header) read_next_header;
    decltype(&::archive_read_data) read_data;
    decltype(&::archive_read_data_block) read_data_block;
    decltype(&::archive_error_string) error_string;
    decltype(&::archive_entry_pathname) entry_pathname;
    decltype(&::archive_entry_size) entry_size;
    decltype(&::archive_entry_hardlink) entry_hardlink;
    decltype(&::archive_entry_set_pathname) entry_set_pathname;
    decltype(&::archive_entry_set_hardlink) entry_set_hardlink;
    decltype(&::archive_write_disk_new) write_disk_new;
    decltype(&::archive_write_disk_set_options) write_disk_set_options;
    decltype(&::archive_write_header) write_header;
    decltype(&::archive_write_data_block) write_data_block;
    decltype(&::archive_write_finish_entry) write_finish_entry;
    decltype(&::archive_write_close) write_close;
    decltype(&::archive_write_free) write_free;
};

// The loader's sentence when the library cannot be loaded; loaded once, on the first call.
std::expected<const ArchiveCalls*, std::string> archiveCalls();

} // namespace vantle

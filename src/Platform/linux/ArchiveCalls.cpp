#include "Platform/ArchiveCalls.h"

#include "Platform/SharedLibrary.h"

namespace vantle {

std::expected<const ArchiveCalls*, std::string> archiveCalls() {
    static const auto loaded = SharedLibrary::table<ArchiveCalls>(
        VANTLE_ARCHIVE_SONAME, [](const SharedLibrary& lib, ArchiveCalls& c) {
            return lib.bind(c.read_new, "archive_read_new") && lib.bind(c.read_free, "archive_read_free") &&
                   lib.bind(c.read_support_filter_all, "archive_read_support_filter_all") &&
                   lib.bind(c.read_support_format_all, "archive_read_support_format_all") &&
                   lib.bind(c.read_support_format_raw, "archive_read_support_format_raw") &&
                   lib.bind(c.read_open_memory, "archive_read_open_memory") &&
                   lib.bind(c.read_open_filename, "archive_read_open_filename") &&
                   lib.bind(c.read_next_header, "archive_read_next_header") &&
                   lib.bind(c.read_data, "archive_read_data") &&
                   lib.bind(c.read_data_block, "archive_read_data_block") &&
                   lib.bind(c.error_string, "archive_error_string") &&
                   lib.bind(c.entry_pathname, "archive_entry_pathname") &&
                   lib.bind(c.entry_size, "archive_entry_size") &&
                   lib.bind(c.entry_hardlink, "archive_entry_hardlink") &&
                   lib.bind(c.entry_set_pathname, "archive_entry_set_pathname") &&
                   lib.bind(c.entry_set_hardlink, "archive_entry_set_hardlink") &&
                   lib.bind(c.write_disk_new, "archive_write_disk_new") &&
                   lib.bind(c.write_disk_set_options, "archive_write_disk_set_options") &&
                   lib.bind(c.write_header, "archive_write_header") &&
                   lib.bind(c.write_data_block, "archive_write_data_block") &&
                   lib.bind(c.write_finish_entry, "archive_write_finish_entry") &&
                   lib.bind(c.write_close, "archive_write_close") &&
                   lib.bind(c.write_free, "archive_write_free");
        });
    return SharedLibrary::kept(loaded);
}

} // namespace vantle

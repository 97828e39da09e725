#include "client/info_command.h"

#include "client/failure.h"
#include "client/input/mapped_file.h"
#include "client/input/shell_word.h"
#include "client/report/info_page.h"
#include "client/report/info_text.h"
#include "client/report/media_report.h"
#include "client/terminal.h"
#include "client/unfinished_recording.h"
#include "client/work_folder.h"

static void write_page(const info_options &options, const std::string &page)
{
    const std::unique_ptr<work_folder> folder = work_folder_make(*options.page, options.force);
    output_place_check_inputs(*options.page, {options.input});
    work_file out(*folder, kWorkPage);
    work_file_write(out, {reinterpret_cast<const uint8_t *>(page.data()), page.size()});
    work_file_finish(out);
    work_folder_publish(*folder, kWorkPage);
}

int info_run(const info_options &options)
{
    for (const unfinished_recording &other : unfinished_recordings_of(options.input)) {
        terminal_say("tdmbrec: note: " + unfinished_recording_text(options.input, other));
    }
    const std::unique_ptr<mapped_file> file = mapped_file_open(options.input);
    if (file->bytes.empty()) {
        throw failure(exit_code::input, options.input + ": is empty");
    }
    if (is_broken_recording(options.input)) {
        terminal_say("tdmbrec: note: to get the recorded data back: tdmbrec recover " +
                     shell_word(options.input));
    }
    const media_report report =
        media_report_make(options.input, file->bytes, [&] { mapped_file_release(*file); });
    std::string text;
    if (options.page) {
        const std::string page = info_page(report);
        if (options.page->empty()) {
            text = page;
        } else {
            write_page(options, page);
            text = *options.page + ": " + verdict_text(report) + "\n";
        }
    } else {
        text = options.json ? info_json(report) : info_text(report);
    }
    terminal_print(text);
    return static_cast<int>(report.faults.empty() ? exit_code::finished : exit_code::faults);
}

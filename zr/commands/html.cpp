// zr html: a page as the client shows it.

#include <memory>

#include "zr/base/failure.h"
#include "zr/base/input_file.h"
#include "zr/base/output.h"
#include "zr/commands/command.h"
#include "zr/commands/html_view.h"
#include "zr/mail/html_charset.h"
#include "zr/mail/text_decoder.h"

namespace zr {
namespace {

constexpr std::size_t kLongestPage = std::size_t{256} << 20;

struct HtmlFileOptions {
    std::string file;
    HtmlOptions html;
    bool json = false;
};

std::string read_page(const std::string& path) {
    const InputFile file(path);
    const ReadFunction read = file.reader();
    std::string bytes;
    std::string chunk(std::size_t{1} << 16, '\0');
    while (const ssize_t count = read(chunk.data(), chunk.size())) {
        if (count < 0) throw file_failure(file.name(), errno);
        bytes.append(chunk, 0, static_cast<std::size_t>(count));
        if (bytes.size() > kLongestPage) throw Failure{Exit::Unreadable, file.name() + ": longer than 256 MB"};
    }
    std::string text;
    TextDecoder decoder(html_charset(bytes));
    decoder.decode(bytes, text);
    decoder.finish(text);
    return text;
}

Exit show_file(const HtmlFileOptions& options) {
    check_html_options(options.html);
    const std::string page = read_page(options.file);
    if (!options.json) return show_html(page, options.html);
    Json json;
    const Exit code = show_html(page, options.html, &json);
    print_json_line(json);
    return code;
}

}  // namespace

void add_html(Command zr) {
    const auto options = std::make_shared<HtmlFileOptions>();
    Command command = zr.add_command("html", "Show an HTML page as the client does");
    command.add_option("FILE", options->file, "The page; - reads standard input").required();
    add_html_options(command, options->html);
    command.add_flag("--json", options->json, "Print a JSON object");
    command.footer(
        "Without an option the page is printed as text. Nothing is fetched from elsewhere without --remote.\n"
        "The exit code is 1 when there are no links, and 16 when the page cannot be shown or the script fails.\n"
        "\n"
        "Examples:\n"
        "  zr html newsletter.html\n"
        "  zr html newsletter.html --png page.png --width 480\n"
        "  zr html newsletter.html --script 'document.images.length'");
    command.runs([options] { return show_file(*options); });
}

}  // namespace zr

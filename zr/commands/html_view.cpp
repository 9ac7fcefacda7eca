#include "zr/commands/html_view.h"

#include <ZrUtility/Helpers/GraphicalUtilities.h>

#include "zr/base/failure.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/html_page.h"
#include "zr/commands/printed_text.h"

namespace zr {
namespace {

constexpr LONG kMostPixels = 16'000;

void print_text(const std::string& text) {
    PrintedText printed;
    printed.write(text);
    printed.finish();
}

Exit tell_text(const HtmlPage& page, Json* json) {
    if (json) {
        json->set("text", page.text());
    } else {
        print_text(page.text());
    }
    return Exit::Ok;
}

Exit tell_links(const HtmlPage& page, Json* json) {
    const std::vector<HtmlLink> links = page.links();
    if (json) {
        Json list = Json::array();
        for (const HtmlLink& link : links) {
            list.add({{"address", link.address}, {"text", link.text}});
        }
        json->set("links", std::move(list));
    } else {
        for (const HtmlLink& link : links) {
            print(printable(link.address) + "\t" + printable(link.text) + "\n");
        }
    }
    return links.empty() ? Exit::None : Exit::Ok;
}

Exit tell_value(const HtmlPage& page, const std::string& script, Json* json) {
    if (json) {
        json->set("value", page.value_of(script).json);
    } else {
        print_text(page.value_of(script).text);
    }
    return Exit::Ok;
}

}  // namespace

bool HtmlOptions::wants_text() const {
    return text || (!links && !script_option.given() && !png_option.given());
}

bool HtmlOptions::any_given() const {
    for (const Option& option :
         {text_option, links_option, script_option, png_option, width_option, height_option, remote_option}) {
        if (option.given()) return true;
    }
    return false;
}

void add_html_options(Command& command, HtmlOptions& options) {
    options.text_option = command.add_flag("--text", options.text, "Print the page as it reads");
    options.links_option = command.add_flag("--links", options.links, "List the anchors that lead somewhere");
    options.script_option =
        command.add_option("--script", options.script, "Run a script in the page and print its value");
    options.png_option = command.add_option("--png", options.png, "Draw what is seen of the page into a picture");
    options.width_option =
        command.add_option("--width", options.width, "How many pixels it is wide (the screen's)").positive();
    options.height_option =
        command.add_option("--height", options.height, "How many pixels it is high (the screen's)").positive();
    options.remote_option = command.add_flag("--remote", options.remote, "Fetch what the page names from elsewhere");
    options.text_option.excludes(options.links_option);
    options.text_option.excludes(options.script_option);
    options.links_option.excludes(options.script_option);
}

void check_html_options(const HtmlOptions& options) {
    if (options.width > kMostPixels || options.height > kMostPixels)
        throw Failure{Exit::Usage, "--width and --height: 16000 pixels are the most"};
}

Exit show_html(std::string_view html, const HtmlOptions& options, Json* json) {
    HtmlPage page(options.width_option.given() ? options.width : GraphicalUtilities::GetScreenWidth(),
                  options.height_option.given() ? options.height : GraphicalUtilities::GetScreenHeight(),
                  options.remote);
    page.show(html);
    if (json) json->set("title", page.title());
    Exit code = Exit::Ok;
    if (options.links) {
        code = tell_links(page, json);
    } else if (options.script_option.given()) {
        code = tell_value(page, options.script, json);
    } else if (options.wants_text()) {
        code = tell_text(page, json);
    }
    if (options.png_option.given()) page.draw(options.png);
    return code;
}

}  // namespace zr

// quorv asset translate: relative asset urls through the module's asset management, one JSON
// line per request.
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "jsonio.h"
#include "render/frame/asset.h"

namespace quorv::cli {

namespace {

const char* const TRANSLATE_HELP =
    R"(Reads JSON lines on stdin, {"url":"relative:///tex/wood.png","type":"TEXTURE"}, and writes
{"url":"/base/tex/wood.png"} for the first search path that holds a file of that name (the
url's text: a file url is written as its plain path), or {"error":"Asset not found."}. "type"
is ANY, TEXTURE, SCENE or 0..2 (default ANY); an ANY request sees only ANY search paths. Urls
of other schemes come back unchanged. The search paths are the defaults "relative:///" (ANY)
and "relative:///tex" (TEXTURE), joined to --base, then each --search in order. Links and
folders are not files.)";

struct AssetOptions {
    std::string base;
    std::vector<std::string> search;
};

bool ParseType(const std::string& text, ASSET_TYPE* out) {
    static const char* const NAMES[] = {"ANY", "TEXTURE", "SCENE"};
    for (int i = 0; i < 3; ++i) {
        if (text == NAMES[i] || text == std::to_string(i)) {
            *out = static_cast<ASSET_TYPE>(i);
            return true;
        }
    }
    return false;
}

int RunTranslate(const GlobalOptions& global, const AssetOptions& o) {
    if (!StartHost(global)) return 1;
    Result<AssetManagementRef> made = AssetManagementRef::Create();
    Result<Url> base = Url::FromText(o.base);
    if (made.IsError() || base.IsError()) {
        std::fprintf(stderr, "quorv: %s\n",
                     ErrorToString(made.IsError() ? made.GetErrorPointer() : base.GetErrorPointer())
                         .c_str());
        return 1;
    }
    AssetManagementRef assets = std::move(made.GetValue());
    Result<void> init = assets.Init(o.base.empty() ? Url() : base.GetValue());
    if (init.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(init.GetErrorPointer()).c_str());
        return 1;
    }
    // --search URL[,TYPE[,FLAG]]
    for (const std::string& s : o.search) {
        std::vector<std::string> parts;
        size_t start = 0;
        for (size_t comma; (comma = s.find(',', start)) != std::string::npos; start = comma + 1)
            parts.push_back(s.substr(start, comma - start));
        parts.push_back(s.substr(start));
        ASSET_TYPE type = ASSET_TYPE::ANY;
        bool flag = false;
        if (parts.size() > 3 || (parts.size() > 1 && !ParseType(parts[1], &type)) ||
            (parts.size() > 2 && parts[2] != "true" && parts[2] != "false")) {
            std::fprintf(stderr,
                         "quorv: --search %s: expected URL[,ANY|TEXTURE|SCENE[,true|false]]\n",
                         s.c_str());
            return 1;
        }
        if (parts.size() > 2) flag = parts[2] == "true";
        Result<Url> url = Url::FromText(parts[0]);
        Result<void> added = url.IsError() ? Result<void>(url.GetError())
                                           : assets.AddSearchPath(url.GetValue(), type, flag);
        if (added.IsError()) {
            std::fprintf(stderr, "quorv: --search %s: %s\n", s.c_str(),
                         ErrorToString(added.GetErrorPointer()).c_str());
            return 1;
        }
    }
    return RunJsonLines(std::cin, [&](const Json& line) -> Json {
        const Json* url = FindField(line, "url");
        if (!url || !url->is_string()) throw LineError("\"url\" must be a string");
        ASSET_TYPE type = ASSET_TYPE::ANY;
        if (const Json* t = FindField(line, "type")) {
            const std::string text = t->is_string() ? t->get<std::string>() : t->dump();
            if (!ParseType(text, &type))
                throw LineError("\"type\" must be ANY, TEXTURE, SCENE or 0..2");
        }
        Result<Url> parsed = Url::FromText(url->get<std::string>());
        if (parsed.IsError())
            return ErrorJson(parsed.GetErrorPointer()->message ? parsed.GetErrorPointer()->message
                                                               : "bad url");
        Result<Url> found = assets.TranslatePath(parsed.GetValue(), type);
        if (found.IsError())
            return ErrorJson(found.GetErrorPointer()->message ? found.GetErrorPointer()->message
                                                              : "error");
        return Json{{"url", found.GetValue().ToText()}};
    });
}

}  // namespace

void AddAssetCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    static AssetOptions o;
    CLI::App* cmd = app.add_subcommand("asset", "Asset path translation of relative urls");
    cmd->require_subcommand(1);
    CLI::App* translate =
        cmd->add_subcommand("translate", "Translate relative urls read as JSON lines");
    translate->add_option("--base", o.base, "Base url the relative search paths are joined to");
    translate->add_option("--search", o.search,
                          "Search path URL[,TYPE[,FLAG]] (repeatable), after the defaults");
    translate->footer(TRANSLATE_HELP);
    translate->callback([&] { run = [&] { return RunTranslate(options, o); }; });
}

}  // namespace quorv::cli

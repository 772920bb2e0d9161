// The source family table. Hosts are each service's own public web domains: the sites people open,
// the domains their downloads and attachments are served from, and their short-link domains. Google
// runs many services under google.com, so the specific Google families name their own subdomains and
// the generic "google" row, tried last, takes whatever is left under Google's domains.
#include "VantleLibrary/Sources.h"

#include <array>

namespace vantle {

namespace {

const std::array<Sources::Family, 35> table{{
    {"gmail", "Gmail", {"mail.google.com", "gmail.com"}, {"gmail"}},
    {"gdrive",
     "Google Drive",
     {"drive.google.com", "docs.google.com", "sheets.google.com", "slides.google.com",
      "drive.usercontent.google.com", "docs.googleusercontent.com", "googledrive.com"},
     {"google drive", "drive", "gdrive", "google docs", "google sheets", "google slides"}},
    {"googlechat", "Google Chat", {"chat.google.com", "chat.googleapis.com"}, {"google chat"}},
    {"gemini", "Gemini", {"gemini.google.com", "bard.google.com"}, {"gemini"}},
    {"youtube", "YouTube", {"youtube.com", "youtu.be", "googlevideo.com", "ytimg.com"}, {"youtube"}},
    {"whatsapp", "WhatsApp", {"whatsapp.com", "whatsapp.net"}, {"whatsapp"}},
    {"telegram", "Telegram", {"telegram.org", "t.me", "telegram.me"}, {"telegram"}},
    {"slack", "Slack", {"slack.com", "slack-edge.com", "slack-files.com"}, {"slack"}},
    {"discord", "Discord", {"discord.com", "discordapp.com", "discordapp.net", "discord.gg"}, {"discord"}},
    {"github", "GitHub", {"github.com", "githubusercontent.com", "github.io"}, {"github"}},
    {"dropbox", "Dropbox", {"dropbox.com", "dropboxusercontent.com"}, {"dropbox"}},
    {"wetransfer", "WeTransfer", {"wetransfer.com", "we.tl"}, {"wetransfer"}},
    {"notion",
     "Notion",
     {"notion.so", "notion.site", "notion.com", "notion-static.com", "notionusercontent.com"},
     {"notion"}},
    {"figma", "Figma", {"figma.com"}, {"figma"}},
    {"canva", "Canva", {"canva.com"}, {"canva"}},
    {"chatgpt",
     "ChatGPT",
     {"chatgpt.com", "openai.com", "oaiusercontent.com"},
     {"chatgpt", "openai", "chat gpt"}},
    {"claude", "Claude", {"claude.ai", "claude.com", "anthropic.com"}, {"claude"}},
    {"grok", "Grok", {"grok.com", "x.ai"}, {"grok"}},
    {"x", "X", {"x.com", "twitter.com", "twimg.com", "t.co"}, {"twitter", "x.com", "tweet", "tweets"}},
    {"instagram", "Instagram", {"instagram.com", "cdninstagram.com"}, {"instagram", "insta"}},
    {"facebook",
     "Facebook",
     {"facebook.com", "fb.com", "fbcdn.net", "messenger.com"},
     {"facebook", "messenger"}},
    {"linkedin", "LinkedIn", {"linkedin.com", "licdn.com"}, {"linkedin"}},
    {"reddit", "Reddit", {"reddit.com", "redd.it", "redditmedia.com", "redditstatic.com"}, {"reddit"}},
    {"pinterest", "Pinterest", {"pinterest.com", "pinimg.com"}, {"pinterest"}},
    {"outlook",
     "Outlook",
     {"outlook.com", "hotmail.com", "live.com", "office.com", "office365.com"},
     {"outlook", "hotmail"}},
    {"yahoomail", "Yahoo Mail", {"mail.yahoo.com"}, {"yahoo mail", "yahoo"}},
    {"protonmail",
     "Proton Mail",
     {"proton.me", "protonmail.com", "protonmail.ch"},
     {"proton", "protonmail", "proton mail"}},
    {"icloud", "iCloud", {"icloud.com", "icloud-content.com"}, {"icloud"}},
    {"unsplash", "Unsplash", {"unsplash.com"}, {"unsplash"}},
    {"pexels", "Pexels", {"pexels.com"}, {"pexels"}},
    {"zoom", "Zoom", {"zoom.us", "zoom.com"}, {"zoom"}},
    {"stripe", "Stripe", {"stripe.com"}, {"stripe"}},
    {"adobe", "Adobe", {"adobe.com"}, {"adobe", "firefly"}},
    {"trello", "Trello", {"trello.com"}, {"trello"}},
    {"google",
     "Google",
     {"google.com", "googleusercontent.com", "googleapis.com", "gstatic.com"},
     {"google"},
     true},
}};

// Not families of the table: mail attachments and extension downloads, grouped and searchable too.
const std::array<Sources::Family, 2> extras{{
    {Sources::mailKey, Sources::mailName, {}, {"mail", "email", "e-mail"}},
    {Sources::extensionKey, Sources::extensionName, {}, {"extension", "extensions"}},
}};

} // namespace

std::span<const Sources::Family> Sources::families() {
    return table;
}

const Sources::Family* Sources::family(std::string_view key) {
    for (const auto& f : table)
        if (f.key == key) return &f;
    return nullptr;
}

std::string_view Sources::nameOf(std::string_view key) {
    if (auto* f = family(key)) return f->name;
    for (const auto& f : extras)
        if (f.key == key) return f.name;
    return {};
}

std::optional<Sources::WordMatch> Sources::matchWords(std::span<const std::string> tokens) {
    std::optional<WordMatch> best;
    auto tryFamily = [&](const Family& f) {
        for (auto word : f.words) {
            // A word of the table is one or two space-separated tokens.
            size_t count = 0;
            size_t start = 0;
            bool matches = true;
            while (start <= word.size()) {
                auto space = word.find(' ', start);
                auto part = word.substr(start, space == std::string_view::npos ? std::string_view::npos
                                                                               : space - start);
                if (count >= tokens.size() || tokens[count] != part) {
                    matches = false;
                    break;
                }
                ++count;
                if (space == std::string_view::npos) break;
                start = space + 1;
            }
            if (matches && (!best || count > best->tokens)) best = WordMatch{f.key, count};
        }
    };
    for (const auto& f : table)
        tryFamily(f);
    for (const auto& f : extras)
        tryFamily(f);
    return best;
}

} // namespace vantle

#include "VantleEgress/Appcast.h"

#include <charconv>
#include <cstring>
#include <expat.h>
#include <memory>

namespace vantle {

namespace {

constexpr std::string_view sparkleNamespace = "http://www.andymatuschak.org/xml-namespaces/sparkle";
constexpr char separator = '|';

struct ParserDeleter {
    void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};

// Element and attribute names arrive as "namespace|local" (or just "local" outside a namespace).
struct Name {
    std::string_view space;
    std::string_view local;
};
Name split(const XML_Char* raw) {
    std::string_view name(raw);
    auto at = name.rfind(separator);
    if (at == std::string_view::npos) return {{}, name};
    return {name.substr(0, at), name.substr(at + 1)};
}

struct Reader {
    XML_Parser parser = nullptr;
    std::vector<UpdateItem> items;
    std::optional<UpdateItem> item;
    std::string text;
    int depth = 0;
    bool sawRss = false;
    bool refused = false;
    std::string refusal;

    void refuse(std::string why) {
        if (refused) return;
        refused = true;
        refusal = std::move(why);
        XML_StopParser(parser, XML_FALSE);
    }

    void start(const XML_Char* rawName, const XML_Char** attributes) {
        ++depth;
        if (depth > 32) return refuse("the feed is nested too deeply");
        auto name = split(rawName);
        if (depth == 1) sawRss = name.space.empty() && name.local == "rss";
        text.clear();
        if (name.space.empty() && name.local == "item") item.emplace();
        if (!item || !(name.space.empty() && name.local == "enclosure")) return;
        for (int i = 0; attributes[i] && attributes[i + 1]; i += 2) {
            auto attribute = split(attributes[i]);
            std::string value = attributes[i + 1];
            if (attribute.space.empty() && attribute.local == "url") item->url = value;
            if (attribute.space.empty() && attribute.local == "length") {
                std::int64_t length = -1;
                auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), length);
                item->length =
                    (ec == std::errc{} && end == value.data() + value.size() && length >= 0) ? length : -1;
            }
            if (attribute.space != sparkleNamespace) continue;
            if (attribute.local == "version") item->build = value;
            if (attribute.local == "shortVersionString") item->shortVersion = value;
            if (attribute.local == "minimumSystemVersion") item->minimumSystemVersion = value;
            if (attribute.local == "edSignature") item->edSignature = value;
        }
    }

    void end(const XML_Char* rawName) {
        --depth;
        auto name = split(rawName);
        if (name.space.empty() && name.local == "item") {
            if (item && !item->url.empty() && !item->build.empty() && !item->edSignature.empty() &&
                item->length > 0) {
                if (item->shortVersion.empty()) item->shortVersion = item->build;
                items.push_back(std::move(*item));
            }
            item.reset();
        } else if (item && name.space == sparkleNamespace) {
            // The same facts may be given as elements of the item rather than enclosure attributes.
            std::string value = text;
            while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back())))
                value.pop_back();
            while (!value.empty() && std::isspace(static_cast<unsigned char>(value.front())))
                value.erase(0, 1);
            if (name.local == "version" && item->build.empty()) item->build = value;
            if (name.local == "shortVersionString" && item->shortVersion.empty()) item->shortVersion = value;
            if (name.local == "minimumSystemVersion" && !item->minimumSystemVersion)
                item->minimumSystemVersion = value;
        }
        text.clear();
    }
};

std::int64_t leadingNumber(std::string_view part, std::string_view* rest) {
    std::int64_t value = 0;
    size_t i = 0;
    while (i < part.size() && part[i] >= '0' && part[i] <= '9') {
        if (value < 1'000'000'000'000) value = value * 10 + (part[i] - '0');
        ++i;
    }
    *rest = part.substr(i);
    return value;
}

} // namespace

std::expected<std::vector<UpdateItem>, std::string> readAppcast(std::string_view xml) {
    std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreateNS("UTF-8", separator));
    if (!parser) return std::unexpected("the reader could not be made");
    Reader reader;
    reader.parser = parser.get();
    XML_SetUserData(parser.get(), &reader);
    XML_SetElementHandler(
        parser.get(),
        [](void* data, const XML_Char* name, const XML_Char** attributes) {
            static_cast<Reader*>(data)->start(name, attributes);
        },
        [](void* data, const XML_Char* name) { static_cast<Reader*>(data)->end(name); });
    XML_SetCharacterDataHandler(parser.get(), [](void* data, const XML_Char* s, int length) {
        auto& reader = *static_cast<Reader*>(data);
        if (reader.text.size() < 4096) reader.text.append(s, static_cast<size_t>(length));
    });
    // A feed has no business declaring a document type; refusing one keeps entity expansion out.
    XML_SetStartDoctypeDeclHandler(
        parser.get(), [](void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
            static_cast<Reader*>(data)->refuse("the feed declares a document type");
        });
    XML_SetParamEntityParsing(parser.get(), XML_PARAM_ENTITY_PARSING_NEVER);

    if (xml.size() > static_cast<size_t>(INT32_MAX)) return std::unexpected("the feed is too large");
    auto status = XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE);
    if (reader.refused) return std::unexpected(reader.refusal);
    if (status != XML_STATUS_OK) return std::unexpected(XML_ErrorString(XML_GetErrorCode(parser.get())));
    if (!reader.sawRss) return std::unexpected("the feed is not an RSS document");
    return std::move(reader.items);
}

std::strong_ordering compareVersions(std::string_view a, std::string_view b) {
    while (!a.empty() || !b.empty()) {
        auto partOf = [](std::string_view& v) {
            auto dot = v.find('.');
            auto part = v.substr(0, dot);
            v = dot == std::string_view::npos ? std::string_view{} : v.substr(dot + 1);
            return part;
        };
        auto pa = partOf(a), pb = partOf(b);
        std::string_view restA, restB;
        auto na = leadingNumber(pa, &restA), nb = leadingNumber(pb, &restB);
        if (auto c = na <=> nb; c != 0) return c;
        if (auto c = restA.compare(restB); c != 0)
            return c < 0 ? std::strong_ordering::less : std::strong_ordering::greater;
    }
    return std::strong_ordering::equal;
}

std::optional<UpdateItem> newestAbove(const std::vector<UpdateItem>& items, std::string_view running) {
    std::optional<UpdateItem> best;
    for (const auto& item : items)
        if (compareVersions(item.build, running) > 0 &&
            (!best || compareVersions(item.build, best->build) > 0))
            best = item;
    return best;
}

} // namespace vantle

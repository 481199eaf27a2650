// Reader of the XML encoding: a <plist> document read through expat, element
// by element, with its nesting bounded and every entity declaration refused.

#include <expat.h>

#include <memory>

#include "plist/PlistCodec.h"
#include "plist/PlistXMLText.h"

namespace qvl::plist::detail {
namespace {

enum class Tag { Plist, Dict, Array, Key, String, Data, Date, Integer, Real, True, False };

std::optional<Tag> tagNamed(std::string_view name) {
    static constexpr std::pair<std::string_view, Tag> kTags[] = {
        {"plist", Tag::Plist},   {"dict", Tag::Dict}, {"array", Tag::Array}, {"key", Tag::Key},
        {"string", Tag::String}, {"data", Tag::Data}, {"date", Tag::Date},   {"integer", Tag::Integer},
        {"real", Tag::Real},     {"true", Tag::True}, {"false", Tag::False},
    };
    for (const auto& [n, tag] : kTags)
        if (n == name) return tag;
    return std::nullopt;
}

bool isContainer(Tag t) {
    return t == Tag::Dict || t == Tag::Array;
}
bool holdsText(Tag t) {
    return t == Tag::Key || t == Tag::String || t == Tag::Data || t == Tag::Date || t == Tag::Integer ||
           t == Tag::Real;
}

struct ParserDeleter {
    void operator()(XML_Parser p) const { XML_ParserFree(p); }
};

class XMLReader {
  public:
    explicit XMLReader(ReadError* error) : error_(error) {}

    std::optional<Value> run(std::span<const uint8_t> bytes) {
        std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate(nullptr));
        if (!parser) return fail(error_, ReadError::kCorrupt, "XML property list: cannot create a parser");
        parser_ = parser.get();
        XML_SetUserData(parser_, this);
        XML_SetElementHandler(parser_, &XMLReader::onStart, &XMLReader::onEnd);
        XML_SetCharacterDataHandler(parser_, &XMLReader::onText);
        // Entities are the one way a small document becomes a huge one; a
        // property list never needs its own, so any declaration is refused.
        XML_SetStartDoctypeDeclHandler(parser_, &XMLReader::onDoctype);
        XML_SetEntityDeclHandler(parser_, &XMLReader::onEntityDecl);
        XML_SetSkippedEntityHandler(parser_, &XMLReader::onSkippedEntity);

        const char* p = reinterpret_cast<const char*>(bytes.data());
        size_t left = bytes.size();
        // XML_Parse takes an int length; feed large documents in pieces.
        constexpr size_t kChunk = 1 << 30;
        do {
            const size_t n = std::min(left, kChunk);
            left -= n;
            if (XML_Parse(parser_, p, static_cast<int>(n), left == 0) != XML_STATUS_OK) {
                if (failed_) return std::nullopt;
                return fail(error_, ReadError::kCorrupt,
                            "XML property list: line " + std::to_string(XML_GetCurrentLineNumber(parser_)) +
                                ": " + XML_ErrorString(XML_GetErrorCode(parser_)));
            }
            p += n;
        } while (left > 0);
        if (!result_) return fail(error_, ReadError::kCorrupt, "XML property list: no <plist> element");
        return std::move(result_);
    }

  private:
    struct Frame {
        Tag tag;
        Array items;                             // <array>
        std::vector<Dictionary::Entry> entries;  // <dict>
        std::optional<std::string> key;          // <dict>: a key waiting for its value
        std::optional<Value> value;              // <plist>: its one value
    };

    void stop(int code, std::string message) {
        if (failed_) return;
        failed_ = true;
        fail(error_, code,
             "XML property list: line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ": " + message);
        XML_StopParser(parser_, XML_FALSE);
    }

    static XMLReader& self(void* data) { return *static_cast<XMLReader*>(data); }

    static void onDoctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*,
                          int hasInternalSubset) {
        if (hasInternalSubset)
            self(data).stop(ReadError::kUnsupported, "a DOCTYPE with its own declarations is not accepted");
    }
    static void onEntityDecl(void* data, const XML_Char* name, int, const XML_Char*, int, const XML_Char*,
                             const XML_Char*, const XML_Char*, const XML_Char*) {
        self(data).stop(ReadError::kUnsupported,
                        std::string("entity declaration \"") + name + "\" is not accepted");
    }
    static void onSkippedEntity(void* data, const XML_Char* name, int) {
        self(data).stop(ReadError::kCorrupt, std::string("undefined entity \"") + name + "\"");
    }
    static void onStart(void* data, const XML_Char* name, const XML_Char**) { self(data).start(name); }
    static void onEnd(void* data, const XML_Char*) { self(data).end(); }
    static void onText(void* data, const XML_Char* s, int len) {
        self(data).text(std::string_view(s, static_cast<size_t>(len)));
    }

    void start(std::string_view name) {
        if (failed_) return;
        const std::optional<Tag> tag = tagNamed(name);
        if (!tag) return stop(ReadError::kUnsupported, "unknown element <" + std::string(name) + ">");
        if (stack_.empty()) {
            if (*tag != Tag::Plist || result_)
                return stop(ReadError::kCorrupt, "the document element is not <plist>");
            stack_.push_back({Tag::Plist, {}, {}, {}, {}});
            return;
        }
        const Frame& parent = stack_.back();
        if (*tag == Tag::Plist) return stop(ReadError::kCorrupt, "<plist> inside another element");
        if (!isContainer(parent.tag) && parent.tag != Tag::Plist)
            return stop(ReadError::kCorrupt, "<" + std::string(name) + "> inside a value element");
        if (parent.tag == Tag::Plist && parent.value)
            return stop(ReadError::kCorrupt, "<plist> holds more than one value");
        if (parent.tag == Tag::Dict) {
            if (*tag == Tag::Key && parent.key)
                return stop(ReadError::kCorrupt, "two <key> elements in a row");
            if (*tag != Tag::Key && !parent.key)
                return stop(ReadError::kCorrupt, "a value without a <key> in <dict>");
        } else if (*tag == Tag::Key) {
            return stop(ReadError::kCorrupt, "<key> outside a <dict>");
        }
        if (isContainer(*tag) && ++containerDepth_ > kMaxDepth)
            return stop(ReadError::kTooDeep, "nesting deeper than " + std::to_string(kMaxDepth));
        stack_.push_back({*tag, {}, {}, {}, {}});
        text_.clear();
    }

    void text(std::string_view s) {
        if (failed_ || stack_.empty()) return;
        if (holdsText(stack_.back().tag)) {
            text_.append(s);
            return;
        }
        for (char c : s)
            if (!isXMLSpace(c)) return stop(ReadError::kCorrupt, "text outside a value element");
    }

    void end() {
        if (failed_) return;
        Frame frame = std::move(stack_.back());
        stack_.pop_back();
        if (frame.tag == Tag::Plist) {
            if (!frame.value) return stop(ReadError::kCorrupt, "<plist> holds no value");
            result_ = std::move(frame.value);
            return;
        }
        if (frame.tag == Tag::Key) {
            stack_.back().key = std::move(text_);
            return;
        }
        std::optional<Value> value = finish(frame);
        if (!value) return;
        Frame& parent = stack_.back();
        if (parent.tag == Tag::Plist)
            parent.value = std::move(value);
        else if (parent.tag == Tag::Array)
            parent.items.push_back(std::move(*value));
        else
            parent.entries.emplace_back(std::move(*parent.key), std::move(*value)), parent.key.reset();
    }

    std::optional<Value> finish(Frame& frame) {
        switch (frame.tag) {
            case Tag::Dict:
                --containerDepth_;
                if (frame.key)
                    return stop(ReadError::kCorrupt, "<key> without a value in <dict>"), std::nullopt;
                return Value(makeDictionary(std::move(frame.entries)));
            case Tag::Array:
                --containerDepth_;
                return Value(std::move(frame.items));
            case Tag::String:
                return Value(std::move(text_));
            case Tag::Data:
                if (auto d = decodeBase64(text_)) return Value(std::move(*d));
                return stop(ReadError::kCorrupt, "<data> is not valid base64"), std::nullopt;
            case Tag::Date:
                if (auto d = parseDate(text_)) return Value(*d);
                return stop(ReadError::kCorrupt,
                            "<date> \"" + text_.substr(0, 64) + "\" is not YYYY-MM-DDTHH:MM:SSZ"),
                       std::nullopt;
            case Tag::Integer:
                if (auto i = parseInteger(text_)) return Value(*i);
                return stop(ReadError::kCorrupt,
                            "<integer> \"" + text_.substr(0, 64) + "\" is not an integer in range"),
                       std::nullopt;
            case Tag::Real:
                if (auto r = parseReal(text_)) return Value(*r);
                return stop(ReadError::kCorrupt, "<real> \"" + text_.substr(0, 64) + "\" is not a number"),
                       std::nullopt;
            case Tag::True:
                return Value(true);
            case Tag::False:
                return Value(false);
            case Tag::Plist:
            case Tag::Key:
                break;
        }
        return std::nullopt;
    }

    ReadError* error_;
    XML_Parser parser_ = nullptr;
    bool failed_ = false;
    std::vector<Frame> stack_;
    std::string text_;
    int containerDepth_ = 0;
    std::optional<Value> result_;
};

}  // namespace

std::optional<Value> readXML(std::span<const uint8_t> bytes, ReadError* error) {
    return XMLReader(error).run(bytes);
}

}  // namespace qvl::plist::detail

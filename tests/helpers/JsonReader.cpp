#include "JsonReader.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace qrvtest {

class JsonParser {
public:
    explicit JsonParser(const std::string& text) : text_(text) {}

    JsonValue document()
    {
        JsonValue value = parseValue();
        skipSpace();
        if (pos_ != text_.size()) fail("text after the value");
        return value;
    }

private:
    [[noreturn]] void fail(const std::string& what) const
    {
        throw std::runtime_error("JSON: " + what + " at offset " + std::to_string(pos_));
    }

    void skipSpace()
    {
        while (pos_ < text_.size() && std::strchr(" \t\r\n", text_[pos_]) != nullptr) ++pos_;
    }

    void expect(char c)
    {
        skipSpace();
        if (pos_ >= text_.size() || text_[pos_] != c) fail(std::string("expected '") + c + "'");
        ++pos_;
    }

    bool consumeWord(const char* word)
    {
        const size_t n = std::strlen(word);
        if (text_.compare(pos_, n, word) != 0) return false;
        pos_ += n;
        return true;
    }

    JsonValue parseValue()
    {
        skipSpace();
        if (pos_ >= text_.size()) fail("unexpected end");
        JsonValue value;
        const char c = text_[pos_];
        if (c == '{') {
            value.type_ = JsonValue::Type::Object;
            ++pos_;
            skipSpace();
            if (pos_ < text_.size() && text_[pos_] == '}') {
                ++pos_;
                return value;
            }
            for (;;) {
                skipSpace();
                if (pos_ >= text_.size() || text_[pos_] != '"') fail("expected a key");
                std::string key = parseString();
                expect(':');
                if (value.object_.count(key)) fail("duplicate key '" + key + "'");
                value.object_[key] = parseValue();
                skipSpace();
                if (pos_ < text_.size() && text_[pos_] == ',') {
                    ++pos_;
                    continue;
                }
                expect('}');
                return value;
            }
        }
        if (c == '[') {
            value.type_ = JsonValue::Type::Array;
            ++pos_;
            skipSpace();
            if (pos_ < text_.size() && text_[pos_] == ']') {
                ++pos_;
                return value;
            }
            for (;;) {
                value.array_.push_back(parseValue());
                skipSpace();
                if (pos_ < text_.size() && text_[pos_] == ',') {
                    ++pos_;
                    continue;
                }
                expect(']');
                return value;
            }
        }
        if (c == '"') {
            value.type_ = JsonValue::Type::String;
            value.string_ = parseString();
            return value;
        }
        if (consumeWord("true") || consumeWord("false")) {
            value.type_ = JsonValue::Type::Bool;
            value.bool_ = text_[pos_ - 4] == 't';
            return value;
        }
        if (consumeWord("null")) return value;
        return parseNumber();
    }

    JsonValue parseNumber()
    {
        const size_t start = pos_;
        if (pos_ < text_.size() && text_[pos_] == '-') ++pos_;
        if (pos_ >= text_.size() || !std::isdigit(static_cast<unsigned char>(text_[pos_]))) fail("bad value");
        while (pos_ < text_.size() && std::strchr("0123456789.eE+-", text_[pos_]) != nullptr) ++pos_;
        const std::string literal = text_.substr(start, pos_ - start);
        char* end = nullptr;
        JsonValue value;
        value.type_ = JsonValue::Type::Number;
        value.number_ = std::strtod(literal.c_str(), &end);
        if (*end != '\0') fail("bad number '" + literal + "'");
        return value;
    }

    std::string parseString()
    {
        ++pos_;  // the opening quote
        std::string out;
        while (pos_ < text_.size() && text_[pos_] != '"') {
            char c = text_[pos_++];
            if (static_cast<unsigned char>(c) < 0x20) fail("control character in a string");
            if (c != '\\') {
                out += c;
                continue;
            }
            if (pos_ >= text_.size()) fail("unfinished escape");
            c = text_[pos_++];
            switch (c) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                if (pos_ + 4 > text_.size()) fail("short \\u escape");
                const unsigned long code = std::strtoul(text_.substr(pos_, 4).c_str(), nullptr, 16);
                pos_ += 4;
                // Enough for what the tests read: code points below U+0800.
                if (code < 0x80) {
                    out += static_cast<char>(code);
                } else if (code < 0x800) {
                    out += static_cast<char>(0xC0 | (code >> 6));
                    out += static_cast<char>(0x80 | (code & 0x3F));
                } else {
                    fail("\\u escape beyond U+07FF");
                }
                break;
            }
            default: fail(std::string("bad escape \\") + c);
            }
        }
        if (pos_ >= text_.size()) fail("unterminated string");
        ++pos_;
        return out;
    }

    const std::string& text_;
    size_t pos_ = 0;
};

JsonValue JsonValue::parse(const std::string& text)
{
    return JsonParser(text).document();
}

namespace {

[[noreturn]] void wrongType(const char* wanted)
{
    throw std::runtime_error(std::string("JSON: value is not ") + wanted);
}

}  // namespace

bool JsonValue::boolean() const
{
    if (type_ != Type::Bool) wrongType("a boolean");
    return bool_;
}

double JsonValue::number() const
{
    if (type_ != Type::Number) wrongType("a number");
    return number_;
}

const std::string& JsonValue::string() const
{
    if (type_ != Type::String) wrongType("a string");
    return string_;
}

size_t JsonValue::size() const
{
    if (type_ == Type::Array) return array_.size();
    if (type_ == Type::Object) return object_.size();
    wrongType("an array or object");
}

const JsonValue& JsonValue::operator[](size_t position) const
{
    if (type_ != Type::Array) wrongType("an array");
    if (position >= array_.size()) throw std::runtime_error("JSON: no element " + std::to_string(position));
    return array_[position];
}

const JsonValue& JsonValue::operator[](const std::string& key) const
{
    if (type_ != Type::Object) wrongType("an object");
    const auto found = object_.find(key);
    if (found == object_.end()) throw std::runtime_error("JSON: no key '" + key + "'");
    return found->second;
}

bool JsonValue::has(const std::string& key) const
{
    return type_ == Type::Object && object_.count(key) != 0;
}

std::vector<std::string> JsonValue::keys() const
{
    if (type_ != Type::Object) wrongType("an object");
    std::vector<std::string> names;
    for (const auto& entry : object_) names.push_back(entry.first);
    return names;
}

}  // namespace qrvtest

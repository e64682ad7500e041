// A small JSON reader for checking what programs write: objects, arrays,
// strings (with escapes), numbers, true, false and null.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace qrvtest {

class JsonValue {
public:
    enum class Type { Null, Bool, Number, String, Array, Object };

    // Throws std::runtime_error, naming the offset, on malformed text or
    // anything but white space after the value.
    static JsonValue parse(const std::string& text);

    Type type() const { return type_; }
    bool isObject() const { return type_ == Type::Object; }
    bool isArray() const { return type_ == Type::Array; }

    // Each accessor throws std::runtime_error when the value has another type
    // or the key or position is missing.
    bool boolean() const;
    double number() const;
    const std::string& string() const;
    size_t size() const;  // of an array or object
    const JsonValue& operator[](size_t position) const;
    const JsonValue& operator[](const std::string& key) const;
    bool has(const std::string& key) const;
    std::vector<std::string> keys() const;

private:
    friend class JsonParser;
    Type type_ = Type::Null;
    bool bool_ = false;
    double number_ = 0.0;
    std::string string_;
    std::vector<JsonValue> array_;
    std::map<std::string, JsonValue> object_;
};

}  // namespace qrvtest

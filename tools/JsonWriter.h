// CJsonWriter: writes one JSON document, indented, to a stream. The caller
// keeps the nesting right (every begin has its end, every value in an object
// has its key first).
#pragma once

#include "zo/Base.h"

#include <ostream>
#include <string>
#include <vector>

namespace cli {

class CJsonWriter {
public:
    explicit CJsonWriter(std::ostream& out) : m_out(out) {}

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    // The key of the next value of the current object.
    void key(const std::string& name);

    void value(const std::string& text);
    void value(const char* text) { value(std::string(text)); }
    void value(zo::int64 number);
    void value(int number) { value(static_cast<zo::int64>(number)); }
    void value(double number);
    void value(bool flag);
    void nullValue();

    template <class T>
    void field(const std::string& name, const T& v)
    {
        key(name);
        value(v);
    }

private:
    // Starts a value: a separator and indentation, unless it follows its key.
    void beginValue();
    void newLine();
    void end(char closing);

    std::ostream& m_out;
    // One entry per open object or array: whether it holds an item yet.
    std::vector<bool> m_hasItems;
    bool m_afterKey = false;
};

} // namespace cli

#pragma once

#include <json/json.h>

#include <cstddef>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

// The JSON text of the wire: strict parsing of what peers send, compact writing of what we
// send. Shared by the request/reply and publish sides so that they agree on one format.
namespace JsonText {
// Deepest nesting accepted from a peer; real requests and replies are a few levels deep.
constexpr int MAX_DEPTH = 100;

// Parses exactly one JSON object or array (no comments, no trailing text, no duplicate keys).
// False for anything else; never throws.
bool parse(const char* text, size_t size, Json::Value& out);
// One line, no indentation.
std::string compact(const Json::Value& value);

// parse() built once and kept, for a path that parses on every request: building the reader
// costs more than parsing a short request.
class Reader {
  public:
    Reader();
    // As parse(); out is left as it was when the text is refused.
    bool parse(const char* text, size_t size, Json::Value& out);

  private:
    std::unique_ptr<Json::CharReader> m_reader;
};

// compact() built once and kept, appending to a string so that its capacity is used again.
class Writer {
  public:
    Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;
    // Appends the compact text of value to out; throws what the writer throws.
    void append(const Json::Value& value, std::string& out);

  private:
    // The stream the writer needs, writing straight into the caller's string.
    class StringAppender : public std::streambuf {
      public:
        std::string* target = nullptr;

      protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* text, std::streamsize size) override;
    };

    StringAppender m_appender;
    std::ostream m_stream{&m_appender};
    std::unique_ptr<Json::StreamWriter> m_writer;
};
}  // namespace JsonText

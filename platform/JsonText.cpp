#include "JsonText.h"

#include <exception>

namespace JsonText {

namespace {

Json::CharReader* newReader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = MAX_DEPTH;
    return builder.newCharReader();
}

Json::StreamWriter* newWriter() {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return builder.newStreamWriter();
}

}  // namespace

bool parse(const char* text, size_t size, Json::Value& out) {
    return Reader().parse(text, size, out);
}

std::string compact(const Json::Value& value) {
    std::string text;
    Writer().append(value, text);
    return text;
}

Reader::Reader() : m_reader(newReader()) {}

bool Reader::parse(const char* text, size_t size, Json::Value& out) {
    Json::Value value;
    try {
        // Too deep a nesting is reported by an exception rather than by the result. No error
        // text is asked for: nobody reads it, and writing it costs.
        if (!m_reader->parse(text, text + size, &value, nullptr)) {
            return false;
        }
    } catch (const std::exception&) {
        // The reader stopped half-way; a fresh one is certain to start clean.
        m_reader.reset(newReader());
        return false;
    }
    out.swap(value);
    return true;
}

Writer::Writer() : m_writer(newWriter()) {
    // A failure to append (no memory) must reach the caller, not leave the stream bad and
    // every later text empty.
    m_stream.exceptions(std::ios::badbit);
}

void Writer::append(const Json::Value& value, std::string& out) {
    m_stream.clear();
    m_appender.target = &out;
    m_writer->write(value, &m_stream);
    m_appender.target = nullptr;
}

Writer::StringAppender::int_type Writer::StringAppender::overflow(int_type c) {
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        target->push_back(traits_type::to_char_type(c));
    }
    return traits_type::not_eof(c);
}

std::streamsize Writer::StringAppender::xsputn(const char* text, std::streamsize size) {
    target->append(text, static_cast<size_t>(size));
    return size;
}

}  // namespace JsonText

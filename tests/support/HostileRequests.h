#pragma once

#include <string>
#include <vector>

// Request frames that a peer of the request socket may send by mistake or in malice, each of
// which must leave the daemon as it was: not JSON, truncated, duplicate keys, nesting at and
// beyond the parser's limit, strange codes and payloads, every key of both setters with every
// JSON type it cannot take, invalid UTF-8, NUL bytes, and payloads of 60 KiB. All fit the
// request socket's size limit.
//
// Wrong-typed values that the JSON library converts and a setter then applies (priority1
// true, syncInterval 2.5, slaveOnly 1, ...) are valid requests, not hostile ones: they are
// left out. The refused ones carry, where they can, a change that would show were they taken
// (a profile change), so that a value read instead of refused is seen.
struct HostileRequest {
    enum class Answer {
        Refused,  // -8: not a request, or a value that the JSON library cannot convert
        Ignored,  // 0: read as absent, or a value that cannot take effect (below)
        Either,   // 0 or -8: text that strict JSON forbids but the parser may take
    };

    std::string name;  // for failure messages, unique
    std::string bytes;
    Answer answer;
};

// Every kind once, the same on every call. An "Ignored" request is inert on a daemon whose
// ptp4l was started with the AES67 media profile: a running configuration of that profile is
// then not applied again. readableFile names a readable regular file for the requests whose
// file name hides it behind a NUL byte or a trailing "/".
std::vector<HostileRequest> hostileRequests(const std::string& readableFile = "/etc/passwd");

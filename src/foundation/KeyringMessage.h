#pragma once

#include <QByteArray>

#include <cstdint>
#include <optional>

// What the keyring helper (pelorin-keyring) and the program say to each other: one request on
// the helper's standard input, one answer on its standard output. Secrets travel only here,
// never in arguments or the environment.
//
//   request: "PKQ1" | op (1 byte) | field service | field account | field secret
//   answer:  "PKA1" | status (int32, big-endian) | field message | field secret
//   field:   length (uint32, big-endian) | that many bytes (service, account, message: UTF-8)
//
// A message is read whole or not at all: a short, overlong or unknown one is rejected.
namespace KeyringMessage {

// Far more than a user name, a password or a status text; keeps a garbled length from
// making either side allocate what it claims.
constexpr std::uint32_t kMaxFieldBytes = 64 * 1024;
constexpr qsizetype kMaxMessageBytes = 4 + 4 + 3 * (4 + qsizetype(kMaxFieldBytes));

enum class Operation : std::uint8_t {
    Ping = 1, // does a Secret Service answer on the session bus?
    Find = 2,
    Update = 3,
    Add = 4,
    Remove = 5,
};

struct Request {
    Operation operation = Operation::Ping;
    QByteArray service;
    QByteArray account;
    QByteArray secret;
};

struct Answer {
    std::int32_t status = 0; // SecretBackend::Status
    QByteArray message;
    QByteArray secret;
};

// nullopt when a field is longer than kMaxFieldBytes.
std::optional<QByteArray> encode(const Request &request);
std::optional<QByteArray> encode(const Answer &answer);
std::optional<Request> decodeRequest(const QByteArray &bytes);
std::optional<Answer> decodeAnswer(const QByteArray &bytes);

} // namespace KeyringMessage

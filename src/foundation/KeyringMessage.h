#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// What the keyring helper (pelorin-keyring) and the program say to each other: requests on the
// helper's standard input, each answered on its standard output as soon as it is read, in the
// same order, until the input closes. Secrets travel only here, never in arguments or the
// environment. Plain C++: the helper links no Qt.
//
//   request: "PKQ1" | op (1 byte) | field service | field account | field secret
//            [| field label, for AddLabelled only]
//   answer:  "PKA1" | status (int32, big-endian) | field message | field secret
//   field:   length (uint32, big-endian) | that many bytes (service, account, message: UTF-8)
//
// A message is read whole or not at all: a short, overlong or unknown one is rejected.
namespace KeyringMessage {

// Far more than a user name, a password or a status text; keeps a garbled length from
// making either side allocate what it claims.
constexpr std::uint32_t kMaxFieldBytes = 64 * 1024;
constexpr std::size_t kMaxMessageBytes = 4 + 4 + 3 * (4 + std::size_t(kMaxFieldBytes));
// The helper's exit code when it ended for want of requests: it read nothing since its last
// answer, so a request that met it on the way out was not acted on and may be sent again.
constexpr int kHelperIdleExitCode = 4;

enum class Operation : std::uint8_t {
    Ping = 1, // does a Secret Service answer on the session bus?
    Find = 2,
    Update = 3,
    Add = 4,
    Remove = 5,
    AddLabelled = 6, // Add, with the item's label (shown by keyring managers)
};

struct Request {
    Operation operation = Operation::Ping;
    std::string service;
    std::string account;
    std::string secret;
    std::string label{}; // AddLabelled only
};

struct Answer {
    std::int32_t status = 0; // SecretStatus::Code
    std::string message;
    std::string secret;
};

// nullopt when a field is longer than kMaxFieldBytes.
std::optional<std::string> encode(const Request &request);
std::optional<std::string> encode(const Answer &answer);

// The message at the front of `bytes`, which then starts after it; nullopt (and `bytes`
// unchanged) when the front is not a whole, valid message. *incomplete (when given) then says
// whether the bytes so far are the valid start of one, so a reader of a stream can wait for more.
std::optional<Request> takeRequest(std::string_view &bytes, bool *incomplete = nullptr);
std::optional<Answer> takeAnswer(std::string_view &bytes, bool *incomplete = nullptr);

// Exactly one message and nothing else.
std::optional<Request> decodeRequest(std::string_view bytes);
std::optional<Answer> decodeAnswer(std::string_view bytes);

} // namespace KeyringMessage

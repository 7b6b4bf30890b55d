#pragma once

// Statuses of the secret stores, in the platform keychain's numbering. Plain C++ so that the
// keyring helper, which links no Qt, speaks the same numbers as the program.
namespace SecretStatus {

enum Code : int {
    Success = 0,
    ItemNotFound = -25300,          // no item for the service and account
    InteractionNotAllowed = -25308, // the keychain (collection) is locked
    UserCanceled = -128,            // an unlock prompt was dismissed
    NotAvailable = -25291,          // no secret service answers
    InternalComponent = -26276,     // any other failure of the secret store
};

} // namespace SecretStatus

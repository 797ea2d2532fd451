#pragma once
// Why a user's request does not go ahead: a client's error, or a rule of the program told to the
// user in its own words (no domain or code: nothing failed, the request was not allowed).

#include <optional>
#include <string>

#include "core/Error.h"

namespace quillon {

struct Refusal {
    std::string message;         // the rule's text, when no client failed
    std::optional<Error> error;  // the client's error, when one failed
    bool badRequest = false;     // the request itself is malformed (a bad name, say)

    static Refusal because(std::string message) { return {std::move(message), {}, false}; }
    static Refusal failed(Error error) { return {{}, std::move(error), false}; }
};

}  // namespace quillon

#include "Session.h"
#include "Text.h"

#include <nlohmann/json.hpp>

ExitStatus runClaim(Session& session) {
    const bool claimed = session.volume.claim();
    const char* answer = claimed ? "secondary" : "none";
    TextBuffer& out = session.output.buffer();
    if (session.options.json) {
        nlohmann::ordered_json result;
        result["volume"] = toUtf8(session.options.volume);
        result["claim"] = answer;
        append(out, result.dump());
    } else {
        append(out, answer);
    }
    out.push_back('\n');
    return claimed ? ExitStatus::DONE : ExitStatus::NOT_FOUND;
}

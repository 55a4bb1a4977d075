#include "Json.h"
#include "Session.h"

#include <nlohmann/json.hpp>

ExitStatus runClaim(Session& session) {
    const bool claimed = session.volume.claim();
    const char* answer = claimed ? "secondary" : "none";
    TextBuffer& out = session.output.buffer();
    if (session.options.json) {
        nlohmann::ordered_json result;
        putName(result, "volume", session.options.volume);
        result["claim"] = answer;
        appendLine(out, result);
    } else {
        append(out, answer);
        out.push_back('\n');
    }
    return claimed ? ExitStatus::DONE : ExitStatus::NOT_FOUND;
}

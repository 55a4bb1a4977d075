// What a call raised.
#ifndef TESTS_RAISED_H
#define TESTS_RAISED_H

#include "Error.h"

#include <string>

// "code file function" of the error, "nothing" without one.
template <typename Raised = Error, typename Call>
std::string raisedBy(const Call& call) {
    try {
        call();
    } catch (const Raised& error) {
        return std::to_string(error.m_code) + " " + error.m_file + " " + error.m_function;
    }
    return "nothing";
}

#endif

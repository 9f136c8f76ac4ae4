// From the text of a request to the text of its answer.
//
// Any thread, several at once; nothing here is shared between calls and nothing is locked. There is
// no catch-all: an exception other than the parser's own passes through and ends the host process.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <string>

namespace mendline {

// Parses the request, runs the operation that it names and writes the answer. A request that is not
// well-formed, and an answer that can't be written, is logged at Error under the tag
// "MendLineOperation" and answered with a fixed text that has no XML declaration.
void handleRequest(const std::string& request, std::string& response);

// Runs the operation that `MendlineOperation.opcode` names and leaves its answer in `responseTree`;
// an "ERROR" element when there is no such operation.
void dispatchOperation(const boost::property_tree::ptree& requestTree,
                       boost::property_tree::ptree& responseTree);

// Puts `text` at `path`, whose separator is '.': an element that is there keeps its place and its
// children, else one is appended. The one way in which operations place a text in an answer.
void putResult(boost::property_tree::ptree& tree, const char* path, const std::string& text);

}  // namespace mendline

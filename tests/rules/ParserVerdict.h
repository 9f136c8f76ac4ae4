// What the XML parser makes of a text: how deep it nests, or where it gives up.
#pragma once

#include <algorithm>
#include <boost/property_tree/detail/rapidxml.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace mendline::rules {

struct ParserVerdict {
  std::optional<int> depth;  // elements within each other; nothing where the parser gives up
  long lastLine = 0;         // the line, from 1, to which it came then
};

// Attributes and comments are children in the tree too, but no levels.
inline int depthOf(const boost::property_tree::ptree& tree) {
  int depth = 0;
  for (const auto& [name, child] : tree) {
    if (name != "<xmlattr>" && name != "<xmlcomment>") {
      depth = std::max(depth, 1 + depthOf(child));
    }
  }
  return depth;
}

inline ParserVerdict parserVerdictOn(const std::string& text) {
  namespace rapidxml = boost::property_tree::detail::rapidxml;
  std::istringstream stream(text);
  boost::property_tree::ptree tree;
  try {
    boost::property_tree::read_xml(stream, tree, 0);
    return {depthOf(tree), 0};
  } catch (const boost::property_tree::xml_parser_error&) {
    // Its line is of no use: the parser writes zeros over the line feeds behind names, then counts
    // those that are left. So where it stopped is asked once more, of the parser underneath.
  }
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  try {
    rapidxml::xml_document<char>().parse<rapidxml::parse_comment_nodes>(buffer.data());
  } catch (const rapidxml::parse_error& error) {
    const auto offset = error.where<char>() - buffer.data();
    return {std::nullopt, 1 + std::count(text.begin(), text.begin() + offset, '\n')};
  }
  return {};
}

}  // namespace mendline::rules

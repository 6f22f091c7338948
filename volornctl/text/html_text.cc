#include "volornctl/text/html_text.h"

#include "volornctl/text/table.h"

namespace volorn::ctl {

std::string htmlText(std::string_view text) {
  std::string result;
  for (const char character : escaped(text)) {
    switch (character) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += character;
    }
  }
  return result;
}

std::string htmlRows(const std::vector<std::pair<std::string, std::string>>& rows) {
  std::string html = "<table>\n";
  for (const auto& [name, text] : rows) {
    html += "<tr><th scope=\"row\">" + htmlText(name) + "</th><td>" + htmlText(text) + "</td></tr>\n";
  }
  return html + "</table>\n";
}

}  // namespace volorn::ctl

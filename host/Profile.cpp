// The three profiles and the lookups by name and by file extension.
#include "Profile.h"

#include <algorithm>

namespace qzhost {
namespace {

Profile MakePhp() {
  Profile p;
  p.name = "php";
  p.extensions = {"php", "php3", "php4", "php5", "phtml"};
  // Warnings and errors go to standard error, once, and never into the page.
  p.serverCommand = "php -d display_errors=stderr -d log_errors=0";
  p.encodingDeclaration = ServerDeclaration::kPhpDeclare;
  p.directiveStart = u"<?";
  p.directiveEnd = u"?>";
  // PHP needs no closing tag at the end of a file.
  p.openBlockIsCode = true;
  return p;
}

Profile MakeErb() {
  Profile p;
  p.name = "erb";
  p.extensions = {"erb", "rhtml"};
  // "-T -" also accepts the <%- and -%> forms that trim white space.
  p.serverCommand = "erb -T -";
  p.encodingDeclaration = ServerDeclaration::kErbMagicComment;
  p.directiveStart = u"<%";
  p.directiveEnd = u"%>";
  return p;
}

Profile MakeAsp() {
  Profile p;
  p.name = "asp";
  p.extensions = {"asp", "aspx", "ascx", "master"};
  p.directiveStart = u"<%";
  p.directiveEnd = u"%>";
  p.encodingDeclaration = ServerDeclaration::kAspDirective;
  p.tagPrefixes = {u"asp:"};
  p.attributeRules = true;
  p.ruleNames = {u"runat"};
  p.ruleValues = {u"server"};
  p.ruleNonHtml = {1};
  // ASP.NET refuses a block left open; closed, it runs as code.
  p.openBlockIsCode = true;
  // Server controls that render nothing keep their tag form, so the editor
  // still shows something it can select.
  p.lockEmptyPrefixedTags = 0;
  return p;
}

char FoldAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

}  // namespace

const std::vector<Profile>& Profiles() {
  static const std::vector<Profile> profiles = [] {
    std::vector<Profile> all = {MakePhp(), MakeErb(), MakeAsp()};
    for (Profile& p : all) {
      p.lockBeginFormat = kLockBeginFormat;
      p.lockEndText = kLockEndText;
      p.translatedValue = kTranslatedValue;
    }
    return all;
  }();
  return profiles;
}

const Profile* FindProfile(std::string_view name) {
  for (const Profile& p : Profiles())
    if (p.name.size() == name.size() &&
        std::equal(name.begin(), name.end(), p.name.begin(), [](char a, char b) { return FoldAscii(a) == b; }))
      return &p;
  return nullptr;
}

const Profile* ProfileForPath(std::string_view path) {
  size_t slash = path.find_last_of('/');
  std::string_view file = slash == std::string_view::npos ? path : path.substr(slash + 1);
  size_t dot = file.find_last_of('.');
  if (dot == std::string_view::npos) return nullptr;
  std::string ext;
  for (char c : file.substr(dot + 1)) ext.push_back(FoldAscii(c));
  for (const Profile& p : Profiles())
    for (const std::string& e : p.extensions)
      if (e == ext) return &p;
  return nullptr;
}

}  // namespace qzhost

// A strict reader for the XML that the runner writes: it accepts only
// well-formed XML 1.0 (valid UTF-8, permitted characters, balanced tags,
// quoted attributes, known entities) and returns the element tree. Written
// apart from the runner's writer so that each can catch the other.
#ifndef TESTS_VERDICT_VEK_XML_CHECK_H_
#define TESTS_VERDICT_VEK_XML_CHECK_H_

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vek_test {

struct XmlElement {
  std::string name;
  std::map<std::string, std::string> attributes;
  std::vector<XmlElement> children;
  std::string text;  // character data and CDATA, decoded, concatenated

  std::vector<const XmlElement*> Children(std::string_view child) const {
    std::vector<const XmlElement*> found;
    for (const XmlElement& element : children) {
      if (element.name == child) found.push_back(&element);
    }
    return found;
  }
  std::string Attribute(const std::string& key) const {
    const auto it = attributes.find(key);
    return it == attributes.end() ? std::string("<none>") : it->second;
  }
};

class XmlReader {
 public:
  // Reads the whole document into *root, or says what is wrong in *error.
  static bool Read(std::string_view document, XmlElement* root,
                   std::string* error) {
    XmlReader reader(document);
    const bool ok = reader.Document(root);
    if (!ok) {
      *error = reader.error_ + " at byte " + std::to_string(reader.at_);
    }
    return ok;
  }

 private:
  explicit XmlReader(std::string_view text) : text_(text) {}

  bool Fail(const std::string& what) {
    if (error_.empty()) error_ = what;
    return false;
  }

  static bool IsXmlChar(uint32_t c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
           (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
  }

  // Decodes one UTF-8 character at at_ and moves past it.
  bool NextChar(uint32_t* c) {
    const auto byte = [&](size_t i) {
      return static_cast<unsigned char>(text_[i]);
    };
    if (at_ >= text_.size()) return Fail("unexpected end");
    const unsigned char lead = byte(at_);
    size_t length = 1;
    uint32_t code = lead;
    if (lead >= 0x80) {
      if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2, code = lead & 0x1F;
      } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3, code = lead & 0x0F;
      } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4, code = lead & 0x07;
      } else {
        return Fail("bad UTF-8 lead byte");
      }
      if (at_ + length > text_.size()) return Fail("cut UTF-8");
      for (size_t k = 1; k < length; ++k) {
        if ((byte(at_ + k) & 0xC0) != 0x80) return Fail("bad UTF-8");
        code = (code << 6) | (byte(at_ + k) & 0x3F);
      }
      const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
      if (code < least[length]) return Fail("overlong UTF-8");
    }
    if (!IsXmlChar(code)) return Fail("character not allowed in XML");
    at_ += length;
    *c = code;
    return true;
  }

  bool Starts(std::string_view what) const {
    return text_.substr(at_, what.size()) == what;
  }

  void Spaces() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\n' ||
                                  text_[at_] == '\r' || text_[at_] == '\t')) {
      ++at_;
    }
  }

  bool Name(std::string* name) {
    const size_t begin = at_;
    while (at_ < text_.size()) {
      const char c = text_[at_];
      const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          c == '_' || c == ':';
      const bool more = (c >= '0' && c <= '9') || c == '-' || c == '.';
      if (!letter && !(more && at_ > begin)) break;
      ++at_;
    }
    if (at_ == begin) return Fail("name expected");
    *name = std::string(text_.substr(begin, at_ - begin));
    return true;
  }

  static void AppendUtf8(uint32_t c, std::string* out) {
    if (c < 0x80) {
      *out += static_cast<char>(c);
    } else if (c < 0x800) {
      *out += static_cast<char>(0xC0 | (c >> 6));
      *out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      *out += static_cast<char>(0xE0 | (c >> 12));
      *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | (c >> 18));
      *out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }

  // At '&': one entity or character reference.
  bool Reference(std::string* out) {
    const size_t semicolon = text_.find(';', at_);
    if (semicolon == std::string_view::npos) return Fail("open reference");
    const std::string_view ref = text_.substr(at_ + 1, semicolon - at_ - 1);
    at_ = semicolon + 1;
    static const std::map<std::string_view, char> kNamed = {
        {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
    const auto named = kNamed.find(ref);
    if (named != kNamed.end()) {
      *out += named->second;
      return true;
    }
    if (ref.size() < 2 || ref[0] != '#') return Fail("unknown entity");
    const bool hex = ref[1] == 'x';
    const std::string_view digits = ref.substr(hex ? 2 : 1);
    if (digits.empty() || digits.size() > 8) return Fail("bad reference");
    uint32_t code = 0;
    for (const char d : digits) {
      uint32_t value = 0;
      if (d >= '0' && d <= '9') {
        value = static_cast<uint32_t>(d - '0');
      } else if (hex && d >= 'a' && d <= 'f') {
        value = static_cast<uint32_t>(d - 'a' + 10);
      } else if (hex && d >= 'A' && d <= 'F') {
        value = static_cast<uint32_t>(d - 'A' + 10);
      } else {
        return Fail("bad reference digit");
      }
      code = code * (hex ? 16 : 10) + value;
    }
    if (!IsXmlChar(code)) return Fail("reference to a forbidden character");
    AppendUtf8(code, out);
    return true;
  }

  bool AttributeValue(std::string* value) {
    if (at_ >= text_.size() || (text_[at_] != '"' && text_[at_] != '\'')) {
      return Fail("quoted value expected");
    }
    const char quote = text_[at_++];
    while (true) {
      if (at_ >= text_.size()) return Fail("open attribute value");
      const char c = text_[at_];
      if (c == quote) {
        ++at_;
        return true;
      }
      if (c == '<') return Fail("'<' in attribute value");
      if (c == '&') {
        if (!Reference(value)) return false;
        continue;
      }
      const size_t begin = at_;
      uint32_t code = 0;
      if (!NextChar(&code)) return false;
      // A parser folds literal white space in values into blanks.
      if (code == '\n' || code == '\r' || code == '\t') {
        *value += ' ';
      } else {
        value->append(text_.substr(begin, at_ - begin));
      }
    }
  }

  bool Element(XmlElement* element) {
    if (!Starts("<")) return Fail("'<' expected");
    ++at_;
    if (!Name(&element->name)) return false;
    while (true) {
      const size_t before = at_;
      Spaces();
      if (Starts("/>")) {
        at_ += 2;
        return true;
      }
      if (Starts(">")) {
        ++at_;
        break;
      }
      if (at_ == before) return Fail("space expected before attribute");
      std::string key;
      std::string value;
      if (!Name(&key)) return false;
      Spaces();
      if (!Starts("=")) return Fail("'=' expected");
      ++at_;
      Spaces();
      if (!AttributeValue(&value)) return false;
      if (!element->attributes.emplace(key, value).second) {
        return Fail("attribute repeated: " + key);
      }
    }
    while (true) {
      if (at_ >= text_.size()) return Fail("unclosed <" + element->name + ">");
      if (Starts("</")) {
        at_ += 2;
        std::string closing;
        if (!Name(&closing)) return false;
        if (closing != element->name) {
          return Fail("</" + closing + "> closes <" + element->name + ">");
        }
        Spaces();
        if (!Starts(">")) return Fail("'>' expected");
        ++at_;
        return true;
      }
      if (Starts("<![CDATA[")) {
        at_ += 9;
        const size_t end = text_.find("]]>", at_);
        if (end == std::string_view::npos) return Fail("open CDATA");
        while (at_ < end) {
          const size_t begin = at_;
          uint32_t code = 0;
          if (!NextChar(&code)) return false;
          element->text.append(text_.substr(begin, at_ - begin));
        }
        at_ = end + 3;
        continue;
      }
      if (Starts("<")) {
        element->children.emplace_back();
        if (!Element(&element->children.back())) return false;
        continue;
      }
      if (Starts("]]>")) return Fail("']]>' in text");
      if (Starts("&")) {
        if (!Reference(&element->text)) return false;
        continue;
      }
      const size_t begin = at_;
      uint32_t code = 0;
      if (!NextChar(&code)) return false;
      element->text.append(text_.substr(begin, at_ - begin));
    }
  }

  bool Document(XmlElement* root) {
    if (Starts("<?xml")) {
      const size_t end = text_.find("?>", at_);
      if (end == std::string_view::npos) return Fail("open declaration");
      at_ = end + 2;
    }
    Spaces();
    if (!Element(root)) return false;
    Spaces();
    if (at_ != text_.size()) return Fail("text after the root element");
    return true;
  }

  std::string_view text_;
  size_t at_ = 0;
  std::string error_;
};

}  // namespace vek_test

#endif  // TESTS_VERDICT_VEK_XML_CHECK_H_

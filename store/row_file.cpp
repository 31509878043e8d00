#include "store/row_file.h"

#include "core/codings.h"
#include "core/format.h"
#include "core/xml.h"

const String row_id_name("_id");

namespace {

const String binary_magic("TLVB");
const String root_name("row");
const String encrypted_name("encrypted");

void put_u16(String& out, unsigned v) {
  out.append(static_cast<char>((v >> 8) & 0xFF));
  out.append(static_cast<char>(v & 0xFF));
}

void put_u32(String& out, uint32_t v) {
  char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
               static_cast<char>(v)};
  out.append(b, 4);
}

void put_record(String& out, const String& name, const String& value, bool enciphered) {
  put_u16(out, (enciphered ? 0x8000u : 0u) | (static_cast<unsigned>(name.length()) & 0x7FFF));
  out.append(name.head(0x7FFF));
  put_u32(out, static_cast<uint32_t>(value.length()));
  out.append(value);
}

RowFileResult decode_binary(const String& data, String& id, std::vector<RowRecord>& records,
                            String& error) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(data.c_data());
  int n = data.length();
  int at = 4;
  while (at < n) {
    if (n - at < 2) {
      error = format("record header cut at offset %d", at);
      return RowFileResult::bad;
    }
    unsigned head = (p[at] << 8) | p[at + 1];
    int name_length = head & 0x7FFF;
    at += 2;
    if (n - at < name_length + 4) {
      error = format("name length %d runs past the end at offset %d", name_length, at);
      return RowFileResult::bad;
    }
    String name = data.substr(at, name_length);
    at += name_length;
    uint32_t value_length = (uint32_t(p[at]) << 24) | (p[at + 1] << 16) | (p[at + 2] << 8) | p[at + 3];
    at += 4;
    if (value_length > static_cast<uint32_t>(n - at)) {
      error = format("value length %u runs past the end at offset %d", value_length, at);
      return RowFileResult::bad;
    }
    String value = data.substr(at, static_cast<int>(value_length));
    at += static_cast<int>(value_length);
    if (name == row_id_name) {
      id = value;
    } else {
      records.push_back({name, value, (head & 0x8000) != 0});
    }
  }
  return RowFileResult::row;
}

RowFileResult decode_xml(const String& data, String& id, std::vector<RowRecord>& records,
                         String& error) {
  XmlNode root(data, true);
  if (root.name() != root_name) {
    error = "the root element is not row";
    return RowFileResult::bad;
  }
  String body = root.raw_body();
  while (!body.empty()) {
    String element = XmlNode::next_element(body);
    if (element.empty()) break;
    XmlNode child(element, false);
    if (child.name().empty()) continue;
    if (child.name() == row_id_name) {
      id = base64_decode(child.text());
      continue;
    }
    bool enciphered = child.attribute(encrypted_name) == str_true;
    String value = child.text();
    if (enciphered) value = base64_decode(value);
    records.push_back({child.name(), value, enciphered});
  }
  return RowFileResult::row;
}

}  // namespace

String encode_row_xml(const String& id, const std::vector<RowRecord>& records) {
  String out("<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<row>\r\n");
  if (!id.empty()) {
    out.append("<_id>");
    out.append(base64_encode(id, 18));
    out.append("</_id>\r\n");
  }
  for (const RowRecord& r : records) {
    if (r.value.empty()) continue;
    out.append('<');
    out.append(r.name);
    if (r.enciphered) {
      out.append(" encrypted=\"true\">");
      out.append(base64_encode(r.value));
    } else {
      out.append('>');
      append_xml_escaped(out, r.value);
    }
    out.append("</");
    out.append(r.name);
    out.append(">\r\n");
  }
  out.append("</row>\r\n");
  return out;
}

String encode_row_binary(const String& id, const std::vector<RowRecord>& records) {
  String out = binary_magic;
  if (!id.empty()) put_record(out, row_id_name, id, false);
  for (const RowRecord& r : records) {
    if (!r.value.empty()) put_record(out, r.name, r.value, r.enciphered);
  }
  return out;
}

RowFileResult decode_row_file(const String& data, String& id, std::vector<RowRecord>& records,
                              String& error) {
  id = String();
  records.clear();
  if (data.empty()) return RowFileResult::empty;
  if (data.starts_with(binary_magic)) return decode_binary(data, id, records, error);
  return decode_xml(data, id, records, error);
}

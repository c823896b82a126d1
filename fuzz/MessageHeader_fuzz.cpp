// The framing of D-Bus messages: where GLib accepts a message, the service reads the same length, kind, names and count
// of texts. It reads or refuses all other bytes, within their bounds.
#include <gio/gio.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "dbus/GLibPtr.hpp"
#include "service/MessageHeader.hpp"
#include "support/Require.hpp"

namespace vornet::fuzz {
namespace {

constexpr std::size_t MOST = 10;  // texts that are counted

std::string_view orEmpty(const char* text) {
  return text ? text : "";
}

bool isWithin(std::string_view part, std::string_view whole) {
  return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

/// The texts of a body "as" or "sas", as GLib reads them; and whether it cut one at a NUL, which the service refuses.
struct Texts {
  std::size_t count = 0;
  bool cut = false;
};

Texts textsIn(GVariant* values, std::string_view body, bool bigEndian) {
  Texts texts;
  std::size_t at = 0;
  const auto number = [&] {
    at = (at + 3) / 4 * 4;
    require(at + 4 <= body.size(), "GLib reads no further than the message");
    guint32 bytes = 0;
    std::memcpy(&bytes, body.data() + at, sizeof bytes);
    at += 4;
    return bigEndian ? GUINT32_FROM_BE(bytes) : GUINT32_FROM_LE(bytes);
  };
  const auto take = [&](const gchar* text) {
    const std::size_t length = number();
    texts.cut = texts.cut || std::strlen(text) != length;
    at += length + 1;
  };
  const gchar* text = nullptr;
  GVariantIter* list = nullptr;
  if (g_variant_n_children(values) == 2) {
    g_variant_get(values, "(&sas)", &text, &list);
    take(text);
  } else {
    g_variant_get(values, "(as)", &list);
  }
  number();
  for (; g_variant_iter_next(list, "&s", &text); ++texts.count) take(text);
  g_variant_iter_free(list);
  return texts;
}

/// What GLib reads of `bytes`, if it takes them, is what the service reads.
void checkAgainstGLib(std::string_view bytes, const std::optional<service::MessageLength>& length,
                      const std::optional<service::MessageHeader>& header) {
  std::string copy(bytes);
  auto* blob = reinterpret_cast<guchar*>(copy.data());
  if (g_dbus_message_bytes_needed(blob, copy.size(), nullptr) != static_cast<gssize>(copy.size())) return;
  const GObjectPtr<GDBusMessage> message(
      g_dbus_message_new_from_blob(blob, copy.size(), G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr));
  if (!message) return;
  // Kinds and flags that GLib does not know are no values of its enumerations: they are read from the bytes.
  const auto type = static_cast<unsigned char>(bytes[1]);
  if (type < G_DBUS_MESSAGE_TYPE_METHOD_CALL || type > G_DBUS_MESSAGE_TYPE_SIGNAL) return;
  require(length && length->total == bytes.size(), "a message is as long as GLib says");
  if (!header) return;  // a field of a type that the service refuses
  require(static_cast<unsigned char>(header->type) == type, "a message's kind is its second byte");
  require(header->serial == g_dbus_message_get_serial(message.get()), "a message has the serial that GLib reads");
  require(header->replyExpected == ((bytes[2] & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0), "so is its first flag");
  require(header->member == orEmpty(g_dbus_message_get_member(message.get())), "so is its member");
  require(header->sender == orEmpty(g_dbus_message_get_sender(message.get())), "so is its sender");
  require(header->signature == orEmpty(g_dbus_message_get_signature(message.get())), "so is its signature");
  GVariant* values = g_dbus_message_get_body(message.get());
  if (!values || (header->signature != "as" && header->signature != "sas")) return;
  const auto body = bytes.substr(length->header);
  const auto count = service::countListedTexts(body, *header, MOST);
  const auto texts = textsIn(values, body, header->bigEndian);
  require(count == std::min(texts.count, MOST + 1) || (!count && texts.cut), "so is the number of its texts");
}

void check(std::string_view bytes) {
  const auto length = service::messageLength(bytes);
  if (length)
    require(length->header >= service::MESSAGE_START && length->header <= length->total, "a body follows its header");
  const auto header = service::readMessageHeader(bytes);
  require(!header || (length && length->header <= bytes.size()), "only a whole header is read");
  if (header) {
    for (const auto text : {header->member, header->sender, header->signature})
      require(isWithin(text, bytes), "a text is a part of the message");
    const auto count = service::countListedTexts(bytes.substr(length->header), *header, MOST);
    require(!count || *count <= MOST + 1, "no more are counted than asked for");
  }
  checkAgainstGLib(bytes, length, header);
}

}  // namespace
}  // namespace vornet::fuzz

/// An input: the bytes of a message.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vornet::fuzz::check({reinterpret_cast<const char*>(data), size});
  return 0;
}

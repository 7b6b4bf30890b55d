#include "foundation/PropertyList.h"

#include <QDateTime>
#include <QFile>
#include <QVariantList>

#include <plist/plist.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

namespace {

// Seconds from the Unix epoch to the property-list epoch, 2001-01-01T00:00:00Z.
constexpr qint64 kPlistEpochOffset = 978307200;
// Deeper nesting than any configuration needs; stops a hostile file from exhausting the stack.
constexpr int kMaxDepth = 64;

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

QString takeString(char *text)
{
    const QString s = text ? QString::fromUtf8(text) : QString();
    std::free(text);
    return s;
}

QVariant toVariant(plist_t node, int depth)
{
    if (!node || depth > kMaxDepth)
        return {};
    switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
        QVariantMap map;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char *key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, it, &key, &value);
            if (!value) {
                std::free(key);
                break;
            }
            map.insert(takeString(key), toVariant(value, depth + 1));
        }
        std::free(it);
        return map;
    }
    case PLIST_ARRAY: {
        QVariantList list;
        const uint32_t size = plist_array_get_size(node);
        for (uint32_t i = 0; i < size; ++i)
            list << toVariant(plist_array_get_item(node, i), depth + 1);
        return list;
    }
    case PLIST_STRING: {
        // A string holding a NUL byte ends there. The copying getter asserts on such a string
        // (ending the program), and the length the library keeps can run past what it copied,
        // so the text is read in place only up to its terminator.
        uint64_t length = 0;
        const char *text = plist_get_string_ptr(node, &length);
        return text ? QString::fromUtf8(text, static_cast<qsizetype>(strnlen(text, length))) : QString();
    }
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return value != 0;
    }
    case PLIST_UINT: {
        // This library keeps negative integers as their two's complement in the same node.
        uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return static_cast<qint64>(value);
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return value;
    }
    case PLIST_DATA: {
        char *bytes = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        QByteArray data(bytes, static_cast<qsizetype>(length));
        std::free(bytes);
        return data;
    }
    case PLIST_DATE: {
        int32_t sec = 0;
        int32_t usec = 0;
        plist_get_date_val(node, &sec, &usec);
        return QDateTime::fromMSecsSinceEpoch((kPlistEpochOffset + sec) * 1000 + usec / 1000, Qt::UTC);
    }
    case PLIST_UID: {
        uint64_t value = 0;
        plist_get_uid_val(node, &value);
        return static_cast<quint64>(value);
    }
    default:
        return {};
    }
}

} // namespace

namespace PropertyList {

std::optional<QVariantMap> dictionaryFromData(const QByteArray &bytes)
{
    if (bytes.isEmpty() || bytes.size() > kMaxFileBytes)
        return std::nullopt;
    const auto size = static_cast<uint32_t>(bytes.size());
    plist_t root = nullptr;
    plist_from_memory(bytes.constData(), size, &root);
    PlistPtr owner(root);
    if (root && plist_is_binary(bytes.constData(), size)) {
        // The binary reader can keep a key holding a NUL with a length its text does not
        // have, and reading such a key asserts (ending the program); no call reads a key
        // otherwise. The XML writer and reader make every key consistent, so binary lists are
        // read through their XML form, which keeps dates to whole seconds.
        char *xml = nullptr;
        uint32_t xmlLength = 0;
        plist_to_xml(root, &xml, &xmlLength);
        root = nullptr;
        if (xml)
            plist_from_xml(xml, xmlLength, &root);
        plist_to_xml_free(xml);
        owner.reset(root);
    }
    if (!root || plist_get_node_type(root) != PLIST_DICT)
        return std::nullopt;
    return toVariant(root, 0).toMap();
}

std::optional<QVariantMap> dictionaryFromFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    if (file.size() > kMaxFileBytes)
        return std::nullopt;
    return dictionaryFromData(file.read(kMaxFileBytes + 1));
}

} // namespace PropertyList

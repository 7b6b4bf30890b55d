#pragma once

#include <QByteArray>
#include <QString>

// Byte buffers as text.
namespace DataExtended {

// Each byte as two lower-case hexadecimal digits, the separator between bytes (none after the
// last). Empty data gives an empty text.
QString hexStringWithSeparator(const QByteArray &data, const QString &separator);
QString hexString(const QByteArray &data);

} // namespace DataExtended

#pragma once

#include <QFile>

// A file that cannot be read reads as empty.
inline QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Replaces the file; false when it cannot be written whole or given `permissions`.
inline bool writeFile(const QString &path, const QByteArray &data, QFile::Permissions permissions = {})
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size() &&
           (!permissions || file.setPermissions(permissions));
}

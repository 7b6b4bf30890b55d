#pragma once

#include <QString>

// Finds flag images by country code. Images are SVG files named "<code>.svg" (lower-case ISO
// code) plus "flag_unknown.svg" in one folder; the answer is the image's file path, which the
// interface loads. This library draws nothing itself.
class FlagUtils {
public:
    static constexpr auto kUnknownFlagName = "flag_unknown";

    // Images in `flagsDirectory`.
    explicit FlagUtils(QString flagsDirectory);

    // The shared instance over the "flags" folder of the program's resources.
    static FlagUtils &defaultInstance();

    // A null or "Unknown" code gives the "flag_unknown" image. Otherwise the image named by the
    // code in lower case ("DE" -> "de"), or a null string when there is none; a missing image
    // does not fall back to "flag_unknown".
    QString getFlagForCountryCode(const QString &code) const;

    const QString &flagsDirectory() const { return m_directory; }

private:
    QString imageNamed(const QString &name) const;

    QString m_directory;
};

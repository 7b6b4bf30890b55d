#pragma once

#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariantMap>

#include <optional>

class KeyedArchiver;
class KeyedUnarchiver;

// One server cluster of one country, as the server list describes it. A plain value: screens
// tell records apart by countryName, there is no identity of its own.
class NQVPNCountry {
public:
    bool enabled = false;
    bool isDefault = false;
    bool clusterFavourited = false; // local only
    bool clusterSelected = false;   // local only
    qint64 countryId = 0;           // JSON "id"; goes into the profile request
    qint64 countryNumeric = 0;
    QString countryIso;      // picks the flag image
    QString countryName;     // display name, names the profile file
    qint64 dateCreated = 0;  // not archived
    qint64 dateModified = 0; // not archived
    QString ovpn;            // profile text, filled after the profile request; not archived
    QString serverAddress;
    QString continent;

    // A record from one server-list element. Integers are kept only when non-zero (a number,
    // or a string such as "17"); strings are kept as given (null where missing); booleans are
    // false where missing. JSON null counts as missing. No other key is read.
    static NQVPNCountry initWithDictionary(const QVariantMap &dictionary);

    // Keyed archive: the two identifiers are written as 64-bit and read back through the
    // 32-bit decoder, so a value above 2^31-1 does not survive a round trip. That asymmetry
    // is the stored format of the favourites list and is kept.
    static QString archiveClassName() { return QStringLiteral("NQVPNCountry"); }
    static bool supportsSecureCoding() { return true; }
    void encodeWithCoder(KeyedArchiver &coder) const;
    static std::optional<NQVPNCountry> initWithCoder(const KeyedUnarchiver &coder);
};

Q_DECLARE_METATYPE(NQVPNCountry)

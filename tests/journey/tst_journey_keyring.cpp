// A start with the login keyring locked and its unlock prompt refused, in a private session
// bus with a real GNOME keyring: the window tells the user, in the interface language, what
// will not be kept and why, and the run goes on with one identifier for all its requests.
#include "Journey.h"

#include "foundation/LocalString.h"
#include "foundation/SecretBackend.h"
#include "support/KeyringPrompts.h"
#include "support/KeyringSession.h"

#include <QJsonArray>
#include <QJsonObject>

using journey::Journey;

namespace {
// The device identifier in each label-settings, account and server-list request so far; the
// three paths hold it in the same segment.
QStringList identifiersSentSoFar()
{
    constexpr int kDeviceSegment = 6;
    QStringList identifiers;
    for (const QJsonValue &request : Journey::backend().requests()) {
        const QStringList path = request.toObject().value(QStringLiteral("path")).toString().split(QLatin1Char('/'));
        if (path.size() > kDeviceSegment &&
            QStringList{QStringLiteral("labelsettings"), QStringLiteral("create"), QStringLiteral("serverlist")}
                .contains(path[3]))
            identifiers << path[3] + QLatin1Char(' ') + path[kDeviceSegment];
    }
    return identifiers;
}
} // namespace

class TestJourneyKeyring : public QObject {
    Q_OBJECT
private slots:
    void initTestCase()
    {
        if (!KeyringSession::isActive())
            QSKIP("dbus-run-session / gnome-keyring-daemon are not available here");
        QVERIFY(!Journey::backend().baseUrl().isEmpty());
    }

    void unlockRefusedAtStart()
    {
        KeyringPrompts prompts;
        if (const QString why = prompts.start("test"); !why.isEmpty())
            QSKIP(qPrintable(why));
        QVERIFY(KeyringPrompts::store(QStringLiteral("deviceUUID"), "KEYRING-ID"));
        QVERIFY(KeyringPrompts::lockLogin());

        Journey j;
        // The keyring helper beside the stand-in tunnel client, as installed.
        QVERIFY(QFile::link(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/pelorin-keyring"),
                            j.root() + QStringLiteral("/helpers/pelorin-keyring")));
        QString reason;
        const std::shared_ptr<SecretBackend> keyring = SecretBackend::connectSecretService(&reason);
        QVERIFY2(keyring, qPrintable(reason));
        AppStorageManager::setSharedManagerForTesting(
            std::make_unique<AppStorageManager>(j.root() + QStringLiteral("/settings.conf"),
                                                KeychainStore(QLatin1String(KeyringPrompts::kService), keyring)));
        const QString language = QStringLiteral("de");
        j.storage().storeAppLanguageCode(language);
        Journey::backend().clearRequests();

        prompts.answerNext("cancel");
        QString seen;
        Journey::answerAlert(LocalString::forKeyInLanguage(QStringLiteral("Ok"), language), &seen);
        j.launch();
        QVERIFY(j.runUntil([&seen] { return !seen.isEmpty(); }));
        // The buttons are named in the interface language: the home screen itself is enough.
        QVERIFY(j.runUntil([&j] { return j.host().homeWidget() != nullptr; }));

        const NQErrorOpt why = j.storage().secretsNotKept();
        QVERIFY(why);
        QVERIFY2(seen.contains(LocalString::forKeyInLanguage(QStringLiteral("keyring_stayed_locked"), language)),
                 qPrintable(seen));
        QVERIFY2(seen.contains(QStringLiteral("(%1)").arg(why->localizedDescription())), qPrintable(seen));
        QVERIFY2(seen.contains(QLatin1String("VPN-Anmeldung")), qPrintable(seen));

        QStringList sent;
        QVERIFY(j.runUntil([&sent] {
            sent = identifiersSentSoFar();
            return sent.filter(QStringLiteral("serverlist ")).size() > 0;
        }));
        QCOMPARE(sent.filter(QStringLiteral("labelsettings ")).size(), 1);
        QCOMPARE(sent.filter(QStringLiteral("create ")).size(), 1);
        const QString identifier = sent.first().section(QLatin1Char(' '), 1);
        for (const QString &request : sent)
            QCOMPARE(request.section(QLatin1Char(' '), 1), identifier);
        // The keyring stayed locked: its identifier could not be read, and none was made for it.
        QVERIFY(identifier != QLatin1String("KEYRING-ID"));
        QVERIFY(!j.log().contains("Missing device UUID create new"));
        // One prompt for the whole run.
        QVERIFY(!prompts.answerPending());
        QCOMPARE(prompts.unexpectedPrompts(), QByteArray());
    }
};

int main(int argc, char **argv)
{
    KeyringSession::enter(argc, argv);
    QApplication app(argc, argv);
    TestJourneyKeyring test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_journey_keyring.moc"

#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

// Misbehaviour that tests switch on: every request whose path starts with a rule's prefix is
// answered the rule's way. The newest matching rule wins; a rule with a count wears out.
//
// Kinds and their value:
//   delay        milliseconds to wait before the normal answer
//   status       HTTP status sent with a small HTML error page
//   non-json     (none) a 200 answer whose body is an HTML page
//   body         the exact body text, status 200, type application/json
//   wrong-shape  (none) "[]" where an object is expected, "{}" where an array is expected
//   missing-keys comma-separated keys removed from the object answer; empty: all keys
//   nulls        comma-separated keys set to null in the object answer; empty: all keys
//   close        (none) the connection is closed without an answer
class FaultTable {
public:
    enum class Kind { Delay, Status, NonJson, Body, WrongShape, MissingKeys, Nulls, Close };

    struct Rule {
        QString pathPrefix;
        Kind kind = Kind::Delay;
        QString value;
        int remaining = -1; // answers left; -1 for ever
    };

    // From {"path-prefix": "...", "kind": "...", "value": ..., "count": n}; nothing and a
    // reason in `error` when the object is not a rule.
    static std::optional<Rule> fromJson(const QJsonObject &object, QString *error);
    // From "PREFIX:KIND[:VALUE]" (the command line).
    static std::optional<Rule> fromText(const QString &text, QString *error);
    static QString kindName(Kind kind);

    void add(const Rule &rule) { m_rules.append(rule); }
    void clear() { m_rules.clear(); }
    // The rule for `path`, used up by one answer.
    std::optional<Rule> take(const QString &path);
    QJsonArray toJson() const;

private:
    QList<Rule> m_rules;
};

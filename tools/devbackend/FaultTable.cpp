#include "FaultTable.h"

#include <QJsonArray>

namespace {

const QList<QPair<QString, FaultTable::Kind>> &kinds()
{
    static const QList<QPair<QString, FaultTable::Kind>> table{
        {QStringLiteral("delay"), FaultTable::Kind::Delay},
        {QStringLiteral("status"), FaultTable::Kind::Status},
        {QStringLiteral("non-json"), FaultTable::Kind::NonJson},
        {QStringLiteral("body"), FaultTable::Kind::Body},
        {QStringLiteral("wrong-shape"), FaultTable::Kind::WrongShape},
        {QStringLiteral("missing-keys"), FaultTable::Kind::MissingKeys},
        {QStringLiteral("nulls"), FaultTable::Kind::Nulls},
        {QStringLiteral("close"), FaultTable::Kind::Close}};
    return table;
}

std::optional<FaultTable::Rule> make(const QString &prefix, const QString &kind, const QString &value, int count,
                                     QString *error)
{
    if (!prefix.startsWith(QLatin1Char('/'))) {
        *error = QStringLiteral("path-prefix must start with '/'");
        return std::nullopt;
    }
    for (const auto &[name, k] : kinds()) {
        if (name != kind)
            continue;
        bool ok = true;
        if ((k == FaultTable::Kind::Delay || k == FaultTable::Kind::Status) && (value.toInt(&ok) < 0 || !ok)) {
            *error = QStringLiteral("%1 needs a non-negative number").arg(kind);
            return std::nullopt;
        }
        return FaultTable::Rule{prefix, k, value, count};
    }
    *error = QStringLiteral("unknown kind '%1'").arg(kind);
    return std::nullopt;
}

} // namespace

std::optional<FaultTable::Rule> FaultTable::fromJson(const QJsonObject &object, QString *error)
{
    const QJsonValue value = object.value(QStringLiteral("value"));
    const QString text = value.isDouble() ? QString::number(value.toInteger()) : value.toString();
    const int count = object.value(QStringLiteral("count")).toInt(-1);
    return make(object.value(QStringLiteral("path-prefix")).toString(), object.value(QStringLiteral("kind")).toString(),
                text, count, error);
}

std::optional<FaultTable::Rule> FaultTable::fromText(const QString &text, QString *error)
{
    const QStringList parts = text.split(QLatin1Char(':'));
    if (parts.size() < 2) {
        *error = QStringLiteral("expected PREFIX:KIND[:VALUE]");
        return std::nullopt;
    }
    return make(parts[0], parts[1], parts.mid(2).join(QLatin1Char(':')), -1, error);
}

QString FaultTable::kindName(Kind kind)
{
    for (const auto &[name, k] : kinds())
        if (k == kind)
            return name;
    return {};
}

std::optional<FaultTable::Rule> FaultTable::take(const QString &path)
{
    for (qsizetype i = m_rules.size() - 1; i >= 0; --i) {
        Rule &rule = m_rules[i];
        if (!path.startsWith(rule.pathPrefix))
            continue;
        const Rule found = rule;
        if (rule.remaining > 0 && --rule.remaining == 0)
            m_rules.removeAt(i);
        return found;
    }
    return std::nullopt;
}

QJsonArray FaultTable::toJson() const
{
    QJsonArray rules;
    for (const Rule &rule : m_rules)
        rules.append(QJsonObject{{QStringLiteral("path-prefix"), rule.pathPrefix},
                                 {QStringLiteral("kind"), kindName(rule.kind)},
                                 {QStringLiteral("value"), rule.value},
                                 {QStringLiteral("count"), rule.remaining}});
    return rules;
}

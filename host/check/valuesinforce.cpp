// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/check/valuesinforce.h"

#include "host/configuration.h"
#include "tcpinput/configuration/schema.h"
#include "tcpinput/configuration/values.h"

#include <QtCore/QJsonDocument>

#include <algorithm>

namespace host {
namespace {

const QString PropertiesKey = QStringLiteral("properties");
const QString DefaultKey = QStringLiteral("default");

//! A row of what is printed.
struct Row
{
    QString key;
    QString value;
    QString origin;
};

// The schema's properties with the defaults that an object of values has.
QJsonObject withDefaultsOf(QJsonObject properties, const QJsonObject &values)
{
    for (auto value = values.begin(); value != values.end(); ++value) {
        QJsonObject property = properties.value(value.key()).toObject();
        if (property.contains(PropertiesKey))
            property.insert(
                    PropertiesKey,
                    withDefaultsOf(property.value(PropertiesKey).toObject(), value->toObject()));
        else
            property.insert(DefaultKey, *value);
        properties.insert(value.key(), property);
    }
    return properties;
}

QJsonObject without(QJsonObject schema, QLatin1String key)
{
    QJsonObject properties = schema.value(PropertiesKey).toObject();
    properties.remove(key);
    schema.insert(PropertiesKey, properties);
    return schema;
}

QString shownValue(const QJsonValue &value)
{
    if (!value.isObject())
        return values::shown(value);
    return QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
}

//! Collects rows, object by object.
class Rows
{
public:
    Rows(const Options &commandLine, QString nameOfFile)
        : options(commandLine),
          fileName(std::move(nameOfFile))
    {}

    // values: of the object in force. given: the same as far as file and command line say it.
    void add(const QString &path, const QJsonObject &schema, const QJsonObject &values,
             const QJsonObject &given)
    {
        const QJsonObject properties = schema.value(PropertiesKey).toObject();
        for (auto entry = properties.begin(); entry != properties.end(); ++entry) {
            const QString &name = entry.key();
            const QJsonObject property = entry->toObject();
            const QJsonValue value = values.value(name);
            if (value.isObject() && property.contains(PropertiesKey))
                add(path + name + u'.', property, value.toObject(), given.value(name).toObject());
            else if (!value.isUndefined())
                rows.push_back({path + name, shownValue(value),
                                originOf(path.isEmpty() ? name : path.chopped(1), given, name)});
            else if (property.contains(DefaultKey))
                rows.push_back({path + name, shownValue(property.value(DefaultKey)),
                                QStringLiteral("default")});
        }
    }

    QStringList lines() const
    {
        qsizetype keyWidth = 0;
        qsizetype valueWidth = 0;
        for (const Row &row : rows) {
            keyWidth = std::max(keyWidth, row.key.size());
            valueWidth = std::max(valueWidth, row.value.size());
        }
        QStringList result;
        for (const Row &row : rows)
            result += row.key.leftJustified(keyWidth) + QStringLiteral("  ")
                    + row.value.leftJustified(valueWidth) + QStringLiteral("  ") + row.origin;
        return result;
    }

private:
    // outerKey: of the configuration, which --set replaces as a whole.
    QString originOf(const QString &outerKey, const QJsonObject &given, const QString &name) const
    {
        if (!given.contains(name))
            return QStringLiteral("inputhost");
        const bool isSet =
                std::any_of(options.settings.begin(), options.settings.end(),
                            [&outerKey](const auto &setting) { return setting.first == outerKey; });
        return isSet ? QStringLiteral("--set") : fileName;
    }

    const Options &options;
    const QString fileName;
    std::vector<Row> rows;
};

} // namespace

QStringList valuesInForce(const QJsonObject &given, const Options &options, const QString &fileName)
{
    QJsonObject schema = schema::configuration();
    if (given.contains(QLatin1String("interface")) && !given.contains(QLatin1String("ipAddr")))
        schema = without(schema, QLatin1String("ipAddr")); // the interface gives it
    Rows rows(options, fileName);
    rows.add({}, schema, withDefaults(given), given);
    return rows.lines();
}

QJsonObject configurationSchema()
{
    QJsonObject schema = schema::configuration();
    QJsonObject properties = schema.value(PropertiesKey).toObject();
    const QJsonObject ssl{{QStringLiteral("ssl"), QJsonObject()}};
    properties = withDefaultsOf(properties, withDefaults(ssl));
    properties.insert(QLatin1String(SchemaKey),
                      QJsonObject{{QStringLiteral("type"), QStringLiteral("string")},
                                  {QStringLiteral("description"),
                                   QStringLiteral("Where this schema is; for editors.")}});
    schema.insert(PropertiesKey, properties);
    return schema;
}

} // namespace host

// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/subids.h"

#include <QtTest/QTest>

// What is found of a record's sub-ids.
class tst_Subids : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void findsEachKey();
    void nothingThere();
    void otherKeys_data();
    void otherKeys();
};

void tst_Subids::findsEachKey()
{
    const QMap<QString, QString> map{{subids::client(), QStringLiteral("the client")},
                                     {subids::connection(), QStringLiteral("the connection")},
                                     {subids::end(), QStringLiteral("the end")},
                                     {subids::offset(), QStringLiteral("the offset")},
                                     {subids::task(), QStringLiteral("the task")}};
    const subids::Values values(map);
    QVERIFY(values.client && values.connection && values.end && values.offset && values.task);
    QCOMPARE(*values.client, QStringLiteral("the client"));
    QCOMPARE(*values.connection, QStringLiteral("the connection"));
    QCOMPARE(*values.end, QStringLiteral("the end"));
    QCOMPARE(*values.offset, QStringLiteral("the offset"));
    QCOMPARE(*values.task, QStringLiteral("the task"));
}

void tst_Subids::nothingThere()
{
    const QMap<QString, QString> map;
    const subids::Values values(map);
    QVERIFY(!values.client && !values.connection && !values.end && !values.offset && !values.task);
}

void tst_Subids::otherKeys_data()
{
    QTest::addColumn<QString>("key");

    QTest::newRow("none") << QString();
    for (const QString &known : {subids::client(), subids::connection(), subids::end(),
                                 subids::offset(), subids::task()}) {
        const QByteArray name = known.toUtf8();
        QTest::newRow(name + ", last letter missing") << known.chopped(1);
        QTest::newRow(name + ", first letter alone") << known.first(1);
        QTest::newRow(name + ", a letter more") << known + QLatin1Char('s');
        QTest::newRow(name + ", another last letter") << known.chopped(1) + QLatin1Char('_');
        QTest::newRow(name + ", upper case") << known.toUpper();
        QTest::newRow(name + ", an end within") << known.chopped(1) + QChar(u'\0');
    }
}

void tst_Subids::otherKeys()
{
    QFETCH(const QString, key);

    const QMap<QString, QString> map{{key, QStringLiteral("a value")}};
    const subids::Values values(map);
    QVERIFY(!values.client && !values.connection && !values.end && !values.offset && !values.task);
}

QTEST_APPLESS_MAIN(tst_Subids)
#include "tst_subids.moc"

// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/nats/subjecttemplate.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace host {
namespace {

bool isSyntax(char c)
{
    return (c >= 0 && c <= ' ') || c == '.' || c == '*' || c == '>' || c == '%' || c == '\x7f';
}

bool isPlainWord(const QString &text)
{
    return std::none_of(text.begin(), text.end(), [](QChar c) {
        return c <= u' ' || c == u'*' || c == u'>' || c == u'}' || c == u'\x7f';
    });
}

} // namespace

QByteArray subjectWord(const QString &text)
{
    QByteArray bytes = text.toUtf8();
    if (bytes.isEmpty())
        return QByteArrayLiteral("-"); // a word must not be empty
    if (std::none_of(bytes.begin(), bytes.end(), isSyntax))
        return bytes;
    QByteArray word;
    word.reserve(bytes.size() * 3);
    for (const char c : std::as_const(bytes)) {
        if (isSyntax(c))
            word += '%' + QByteArray(1, c).toHex().toUpper();
        else
            word += c;
    }
    return word;
}

QString SubjectTemplate::read(const QString &text, const QString &stream,
                              const QByteArray &thisEpoch)
{
    epoch = thisEpoch;
    parts.clear();
    QString rest = text;
    while (!rest.isEmpty()) {
        const qsizetype brace = rest.indexOf(u'{');
        const QString plain = rest.left(brace);
        if (!isPlainWord(plain))
            return QStringLiteral("a subject has no blanks, wildcards or lone braces");
        tail() += plain.toUtf8();
        if (brace < 0)
            break;
        const qsizetype end = rest.indexOf(u'}', brace);
        if (end < 0 || !addPlaceholder(rest.mid(brace + 1, end - brace - 1), stream))
            return QStringLiteral("its placeholders are {connection}, {peer}, {port}, {source}, "
                                  "{client}, {plugin}, {epoch} and {stream}");
        rest.remove(0, end + 1);
    }
    const QStringList words = pattern().split(u'.');
    if (words.contains(QString()))
        return QStringLiteral("a subject is words with single dots between them");
    if (words.first() == u'*' || words.first().startsWith(u'$') || words.first() == u"_INBOX")
        return QStringLiteral("a subject begins with a plain word");
    return {};
}

bool SubjectTemplate::addPlaceholder(const QString &name, const QString &stream)
{
    static constexpr std::pair<const char *, Field> Fields[] = {
            {"connection", Field::Connection}, {"peer", Field::Peer},     {"port", Field::Port},
            {"source", Field::Source},         {"client", Field::Client}, {"plugin", Field::Plugin},
            {"epoch", Field::Epoch},
    };
    if (name == u"stream") {
        tail() += subjectWord(stream);
        return true;
    }
    const auto *found =
            std::find_if(std::begin(Fields), std::end(Fields),
                         [&name](const auto &known) { return name == QLatin1String(known.first); });
    if (found == std::end(Fields))
        return false;
    tail(); // there is one
    parts.back().field = found->second;
    return true;
}

// The text at the end, which a field may follow.
QByteArray &SubjectTemplate::tail()
{
    if (parts.empty() || parts.back().field != Field::None)
        parts.emplace_back();
    return parts.back().text;
}

QByteArray SubjectTemplate::valueOf(Field field, const Origin &origin) const
{
    switch (field) {
    case Field::Connection:
        return QByteArray::number(origin.connection);
    case Field::Peer:
        return subjectWord(origin.peer);
    case Field::Port:
        return QByteArray::number(origin.port);
    case Field::Source:
        return subjectWord(origin.source);
    case Field::Client:
        return subjectWord(origin.client);
    case Field::Plugin:
        return subjectWord(origin.plugin);
    case Field::Epoch:
        return epoch;
    case Field::None:
        break;
    }
    return {};
}

QByteArray SubjectTemplate::subjectOf(const Origin &origin) const
{
    QByteArray subject;
    for (const Part &part : parts)
        subject += part.text + valueOf(part.field, origin);
    return subject;
}

QString SubjectTemplate::pattern() const
{
    QString marked;
    for (const Part &part : parts) {
        marked += QString::fromUtf8(part.text);
        if (part.field != Field::None)
            marked += u'*';
    }
    QStringList words = marked.split(u'.');
    for (QString &word : words) {
        if (word.contains(u'*'))
            word = QStringLiteral("*");
    }
    return words.join(u'.');
}

} // namespace host

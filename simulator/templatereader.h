// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/messagetemplate.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <optional>

namespace simulator {

/*!
    Reads the text of a template: escapes, placeholders, and what stands for itself.

    Thread: any. For one call of read().
*/
class TemplateReader
{
public:
    explicit TemplateReader(const QByteArray &source) : text(source) {}

    // Nothing, and what is wrong in the error, if it cannot be read.
    std::optional<MessageTemplate> read(QString &error);

private:
    using Part = MessageTemplate::Part;

    bool atPlaceholder() const;
    void takeEscape();
    void takePlaceholder();
    std::optional<Part> partOf(const QByteArray &name, const QString &argument);
    std::optional<Part> numberPart(Part::Kind kind, const QString &argument);
    std::optional<Part> sumPart(const Checksum &checksum, const QString &argument);
    std::optional<Part> randomPart(const QString &argument);
    std::optional<Part> lettersPart(const QString &argument);
    std::optional<Part> barePart(Part::Kind kind, const QString &argument);
    std::optional<Part> fail(const QString &what);

    const QByteArray text;
    qsizetype at = 0;
    QByteArray literal; // text since the last placeholder
    MessageTemplate result;
    QString firstError;
};

} // namespace simulator

#pragma once

#include <QByteArray>
#include <QColor>
#include <QString>
#include <QStringList>

#include <ostream>

// Readable gtest failure output for Qt strings.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

inline void PrintTo(const QByteArray& bytes, std::ostream* out)
{
    *out << '"' << bytes.toStdString() << '"';
}

inline void PrintTo(const QStringList& list, std::ostream* out)
{
    *out << "{";
    for (int i = 0; i < list.size(); ++i)
        *out << (i ? ", " : "") << '"' << list[i].toStdString() << '"';
    *out << "}";
}

inline void PrintTo(const QColor& colour, std::ostream* out)
{
    *out << colour.name(QColor::HexArgb).toStdString();
}

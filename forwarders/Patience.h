#pragma once

#include <QtGlobal>

/// How long an answer is waited for: twice as long after each that did not come in time, up to six times, so
/// that a server which is always slow is heard out, too.
class Patience
{
public:
    /// `usual` is in ms.
    explicit Patience(int usual) : m_usual(usual), m_ms(usual) { }

    int ms() const { return m_ms; }
    void lengthen() { m_ms = qMin(m_ms * 2, m_usual * 6); }
    void reset() { m_ms = m_usual; }

private:
    const int m_usual;
    int m_ms;
};

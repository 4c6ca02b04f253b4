#pragma once

#include <clocale>
#include <cstdlib>
#include <string>

#include "Fixtures.h"

// Makes the C locale's decimal point a comma while it lives: a locale that is made for the purpose, since a machine may
// have none of that kind.
class DecimalComma {
public:
    DecimalComma() {
        m_dir.Write("source",
                    "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\ngrouping 3;3\nEND LC_NUMERIC\n");
        // It warns of every category that is not there, and answers 1 for that.
        const std::string command =
            "localedef -c -i " + m_dir.File("source") + " " + m_dir.File("comma") + " >/dev/null 2>&1";
        m_made = std::system(command.c_str()) != -1;  // NOLINT(cert-env33-c): a path of our own
        setenv("LOCPATH", m_dir.Path().c_str(), 1);
        m_made = std::setlocale(LC_NUMERIC, "comma") != nullptr && m_made;
    }
    DecimalComma(const DecimalComma&) = delete;
    DecimalComma& operator=(const DecimalComma&) = delete;
    ~DecimalComma() {
        std::setlocale(LC_NUMERIC, "C");
        unsetenv("LOCPATH");
    }

    // Whether there is such a locale: not every C library has localedef.
    bool IsMade() const { return m_made; }

private:
    support::TempDir m_dir;
    bool m_made = false;
};

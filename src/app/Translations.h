#pragma once
// The program's texts in the user's language: the German (or other) catalogue built into the
// binary, chosen from LANGUAGE, LC_ALL, LC_MESSAGES and LANG, plus Qt's own for its dialogs when
// the system has them. English needs nothing: it is the source language. Log lines stay English.
namespace lumerix {

// Call once, right after the QCoreApplication (or QApplication) exists.
void installTranslations();

}  // namespace lumerix

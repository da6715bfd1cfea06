// The lines of one crash dump: each begins with its severity letter when the dump prints on
// its own printer, and is handed on whole when it ends.
#pragma once

#include "platform/chario.h"

class DumpLines {
 public:
  static constexpr char kError = 'E';
  static constexpr char kWarning = 'W';
  static constexpr char kVerbose = 'V';

  // Null `printer`: a printer of the dump's own on the debug console, with severity letters.
  explicit DumpLines(const Ref<CharPrinter>& printer)
      : printer_(printer ? printer : CharPrinter::create(CharWriter::create(Debug::out(), 0))),
        letters_(!printer) {}

  // Starts a line of the given severity; the text follows through the returned printer.
  CharPrinter& begin(char severity) {
    if (letters_) printer_->put(severity);
    return *printer_;
  }
  void end() { printer_->endLine(); }

  // One whole line of fixed text.
  void text(char severity, const char* line) {
    begin(severity) << line;
    end();
  }

 private:
  Ref<CharPrinter> printer_;
  bool letters_;
};

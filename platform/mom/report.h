// The stand-in's own diagnostics: one line on stderr, prefixed "qz_mom: ".
#ifndef QZ_MOM_IMPL_REPORT_H
#define QZ_MOM_IMPL_REPORT_H

namespace qzmom {

// Formats one line (newline added) and writes it to stderr in one write.
void report(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_REPORT_H

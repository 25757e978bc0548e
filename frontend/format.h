// format.h - explicit formats for PRINT and STRING: "(I5, F8.2, 3(A, 1X))".
//
// Codes: Iw[.m] integers, Fw.d fixed, Ew.d exponent, Gw.d whichever of F
// and E suits the value, A[w] text, nX blanks, 'text' literals and '/' a
// new line; any of them (and parenthesised groups) after a repeat count.
// A '-' after a code's letter (A-10, I-5) puts the value at the field's
// left; a width written with a leading zero (I05, F08.3) fills with zeros.
// A value too wide for its field shows as asterisks.  When the values
// outlast the format, it starts again on a new line.  A C-style format,
// (%"x=%5.2f %s"), takes printf's codes instead.
#pragma once

#include <qva/qva.h>

#include <string>
#include <vector>

namespace qva {

// The lines a format makes of the elements of `values`, in order.  A bad
// format raises a HostError naming what is wrong.
std::vector<std::string> format_lines(const std::string &format, const std::vector<QVA_VPTR> &values);

}  // namespace qva

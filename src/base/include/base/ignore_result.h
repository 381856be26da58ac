// Marks a result as ignored on purpose. Compilers warn when the result of functions such as
// write(2) is not used, and a cast to void does not silence that warning.
#ifndef BASE_IGNORE_RESULT_H
#define BASE_IGNORE_RESULT_H

namespace corvo {

template <typename Result>
void ignore_result(const Result& /*result*/) {}

}  // namespace corvo

#endif  // BASE_IGNORE_RESULT_H

// The one way in which a result that decides nothing is passed over, where it must not be forgotten
// by mistake: compilers warn of a write(2) whose result nobody looks at, also behind a cast.
#ifndef BASE_IGNORE_RESULT_H
#define BASE_IGNORE_RESULT_H

namespace corvo {

template <typename Result>
void ignore_result(const Result& /*result*/) {}

}  // namespace corvo

#endif  // BASE_IGNORE_RESULT_H

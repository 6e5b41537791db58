// Built into the tool only under ThreadSanitizer.
//
// The system's cpp-httplib is a shared library built without the sanitizer.
// It parses each request line with a regular expression held in a
// function-local static: the first pool thread to serve a request builds it,
// and the others find it built through the guard's inlined atomic load,
// which the sanitizer cannot see. Reads of that expression then show up as
// races inside the library. The tool's own code is still checked.
extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }

# A disabled log statement still evaluates its format arguments.
set(mutant_does [=[a disabled log statement evaluates its arguments]=])
set(mutant_header logging/vek_log.h)
set(mutant_find_1 [=[
inline const char* TagOf(const std::string& tag) { return tag.c_str(); }
]=])
set(mutant_replace_1 [=[
inline const char* TagOf(const std::string& tag) { return tag.c_str(); }

template <typename... Args>
inline void Discard(const char*, const Args&...) {}
]=])
set(mutant_find_2 [=[
          ::zov_vek::log_internal::TagOf(vek_log_group_), fmt, ##__VA_ARGS__); \
    }                                                                          \
]=])
set(mutant_replace_2 [=[
          ::zov_vek::log_internal::TagOf(vek_log_group_), fmt, ##__VA_ARGS__); \
    } else {                                                                   \
      ::zov_vek::log_internal::Discard(fmt, ##__VA_ARGS__);                    \
    }                                                                          \
]=])
# No suite logs an argument with a side effect.
set(mutant_not_caught TRUE)
set(mutant_contract_catchers
  LogStatement.EvaluatesNoArgumentWhileDisabledAndEachOnceWhenEnabled)

# SetLogLevelMask("*", mask) leaves the existing custom groups alone.
set(mutant_does [=[`SetLogLevelMask("*", m)` leaves existing custom groups alone]=])
set(mutant_header logging/vek_logger.h)
set(mutant_find_1 [=[
      for (auto& node : custom_groups_) node.second.mask = mask;
]=])
set(mutant_replace_1 "")
# No suite sets the "*" tag.
set(mutant_not_caught TRUE)
set(mutant_contract_catchers
  LoggerSetLogLevelMask.StarReachesEveryGroupAndTheGroupsMadeLater)

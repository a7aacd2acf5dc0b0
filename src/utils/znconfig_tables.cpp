#include "utils/znconfig_tables.h"

#include <array>

namespace {

constexpr int64_t K = 1024;
constexpr int64_t M = K * K;
constexpr int64_t G = M * K;
constexpr int64_t T = G * K;

constexpr ValidationRule lng_rule(int64_t min, int64_t max,
                                  int (*validator)(uint32_t, PropertySlot) = nullptr) {
  return {PROP_TPE_LNG, property_slot_lng(min), property_slot_lng(max), validator};
}
constexpr ValidationRule dbl_rule(double min, double max) {
  return {PROP_TPE_DBL, property_slot_dbl(min), property_slot_dbl(max), nullptr};
}

// The one rule on a number of seconds (fractions allowed).
constexpr uint32_t kSecondsRule = 29;

constexpr auto kRuleMap = [] {
  std::array<uint32_t, ZNCONFIG_PROPERTY_COUNT> map{};
  constexpr std::pair<int, uint32_t> kPairs[] = {
      {6, 9},   {14, 25}, {18, 9},  {34, 1},  {35, 1},  {36, 2},   {37, 3},   {38, 3},
      {40, 15}, {41, 15}, {42, 16}, {43, 17}, {44, 18}, {45, 4},   {47, 5},   {48, 6},
      {53, 1},  {54, 1},  {55, 1},  {62, 8},  {63, 8},  {68, 10},  {70, 11},  {72, 20},
      {73, 21}, {74, 22}, {75, 1},  {76, 2},  {79, 12}, {80, 14},  {82, 10},  {87, 1},
      {88, 23}, {91, 19}, {97, 26}, {98, 27}, {99, 28}, {101, 25}, {102, 24}, {127, kSecondsRule}};
  for (auto [pid, rule] : kPairs) map[pid] = rule;
  return map;
}();

constexpr uint32_t B = PROP_TPE_BOOL;
constexpr uint32_t L = PROP_TPE_LNG;
constexpr uint32_t D = PROP_TPE_DBL;
constexpr uint32_t S = PROP_TPE_STR;
constexpr int kServer = ZNCONFIG_GROUP_SERVER;
constexpr int kClient = ZNCONFIG_GROUP_CLIENT;
constexpr int kSystem = ZNCONFIG_GROUP_SYSTEM;
constexpr int kCbm = ZNCONFIG_GROUP_CBM;
constexpr int kMemory = ZNCONFIG_GROUP_MEMORY;
constexpr int kEngine = ZNCONFIG_GROUP_ENGINE;

// The engine's properties only need their defaults where the engine relies on one; the rest are
// registered empty (value 0), which skips validation.
constexpr ZnConfigDefault kDefaults[] = {
    {kServer, 1, B, "false"},       // profiling
    {kServer, 2, B, "false"},       // profile_per_query
    {kServer, 3, L, "100M"},        // profile_maxsize
    {kServer, 4, L, "1000"},        // profile_maxfiles
    {kServer, 5, S, nullptr},       // profile_file
    {kServer, 6, L, "48130"},       // port
    {kServer, 7, S, nullptr},       // dbfarm_path
    {kServer, 8, S, nullptr},       // dbname
    {kServer, 9, S, "default"},     // dblocation
    {kServer, 10, S, nullptr},      // query_file
    {kServer, 11, S, "077"},        // umask
    {kServer, 12, B, "false"},      // allow_remote_connections
    {kServer, 13, B, "false"},      // password_auth
    {kServer, 14, L, "1"},          // socket_retry
    {kServer, 15, S, "US"},         // date_format
    {kServer, 16, L, "-1"},         // century_boundary
    {kServer, 17, B, "false"},      // self_inspection
    {kClient, 18, L, "48130"},      // port
    {kClient, 19, S, "ascii"},      // output_mode
    {kClient, 20, S, "localhost"},  // host
    {kClient, 21, L, "3"},          // connection_retries
    {kClient, 22, S, nullptr},      // passfile
    {kMemory, 23, B, nullptr},      // use_huge_tlb
    {kMemory, 24, L, nullptr},      // huge_tlb_lim
    {kMemory, 25, D, nullptr},      // bitfilter_cmpshare_threshold
    {kMemory, 26, D, "0.15"},       // bitfilter_2bitratio
    {kMemory, 27, L, nullptr},      // bitfilter_2bitminsize
    {kMemory, 28, D, nullptr},      // bitfilter_onratio
    {kMemory, 29, D, nullptr},      // bitfilter_offratio
    {kMemory, 30, L, nullptr},      // bitfilter_maxsize
    {kMemory, 31, L, nullptr},      // bitfilter_2passthreshold
    {kMemory, 32, L, nullptr},      // bitfilter_samplesize
    {kMemory, 33, L, nullptr},      // bitfilter_bitspertuple
    {kMemory, 34, D, nullptr},      // large_allocation_limit
    {kMemory, 35, D, nullptr},      // max_memuse
    {kMemory, 36, L, nullptr},      // max_memory_size
    {kMemory, 37, L, nullptr},      // min_mem_per_transaction
    {kMemory, 38, L, nullptr},      // min_trans_mem_inc
    {kMemory, 39, L, "2G"},         // max_overalloc
    {kMemory, 40, L, nullptr},      // vheap_initial_buffer_size
    {kMemory, 41, L, nullptr},      // vheap_max_buffer_size
    {kMemory, 42, L, nullptr},      // max_xchg_buffer_size
    {kMemory, 43, L, nullptr},      // max_xchg_buffer_length
    {kMemory, 44, L, nullptr},      // xchg_mem_save_threshold
    {kSystem, 45, L, "1"},          // num_cores
    {kSystem, 46, D, ".25"},        // core_overalloc
    {kSystem, 47, L, "20"},         // max_transactions
    {kSystem, 48, L, "1024"},       // vectorsize
    {kSystem, 49, B, nullptr},      // use_sse42
    {kSystem, 50, B, nullptr},      // lazy_eval
    {kSystem, 51, B, nullptr},      // map_compute_all
    {kSystem, 52, B, nullptr},      // update_propagation
    {kSystem, 53, D, nullptr},      // max_global_update_memory
    {kSystem, 54, D, nullptr},      // max_update_memory_per_transaction
    {kSystem, 55, D, nullptr},      // max_table_update_ratio
    {kSystem, 56, L, nullptr},      // min_propagate_table_count
    {kSystem, 57, L, nullptr},      // max_table_snapshot_copy_mem
    {kSystem, 58, L, nullptr},      // combine_hash_deletion_max_cardinality
    {kSystem, 59, L, "3"},          // max_number_propagate_retries
    {kSystem, 60, B, nullptr},      // full_rewrite_on_update_propagation
    {kSystem, 61, B, nullptr},      // full_rewrite_on_combine
    {kSystem, 62, L, nullptr},      // max_initial_log_size
    {kSystem, 63, L, nullptr},      // max_old_log_size
    {kSystem, 64, B, nullptr},      // bulk_insert_constraint_checking
    {kSystem, 65, B, nullptr},      // interrupt_conflicting_checkpoint
    {kCbm, 66, L, nullptr},         // preload_mintuples
    {kCbm, 67, L, nullptr},         // preload_maxcolsize
    {kCbm, 68, L, nullptr},         // io_prefetch_blocks
    {kCbm, 69, B, nullptr},         // pin_all_strings
    {kCbm, 70, L, "512K"},          // block_size
    {kCbm, 71, B, nullptr},         // auto_pax_storage
    {kCbm, 72, L, nullptr},         // max_num_columns_per_pax_group
    {kCbm, 73, L, nullptr},         // max_sum_column_width_per_pax_group
    {kCbm, 74, L, nullptr},         // max_num_pax_groups
    {kCbm, 75, D, nullptr},         // bufferpool_memuse
    {kCbm, 76, L, nullptr},         // bufferpool_size
    {kCbm, 77, B, nullptr},         // pbm_enabled
    {kCbm, 78, L, nullptr},         // columnspace_grow
    {kCbm, 79, L, nullptr},         // group_size
    {kCbm, 80, L, nullptr},         // initial_file_metadata_size
    {kCbm, 81, L, nullptr},         // bufferpool_blocks
    {kCbm, 82, L, nullptr},         // queue_depth
    {kCbm, 83, L, nullptr},         // minmax_maxsize
    {kCbm, 84, B, nullptr},         // compression_nulls_enabled
    {kCbm, 85, L, nullptr},         // compression_max_compressible_string
    {kCbm, 86, B, nullptr},         // append_reuse_last_block
    {kCbm, 87, D, nullptr},         // append_fill_threshold
    {kCbm, 88, L, nullptr},         // append_max_tuples_to_recompress
    {kEngine, 89, D, nullptr},      // select_datadep_lo
    {kEngine, 90, D, nullptr},      // select_datadep_hi
    {kEngine, 91, L, nullptr},      // hash_table_min_width
    {kEngine, 92, L, nullptr},      // hash_table_min_buckets
    {kEngine, 93, L, nullptr},      // hash_table_max_initial_values
    {kEngine, 94, B, nullptr},      // antijoin_return_nothing_on_null
    {kEngine, 95, B, nullptr},      // enable_aggregation_disk_spilling
    {kEngine, 96, B, nullptr},      // enable_hashjoin_disk_spilling
    {kEngine, 97, L, nullptr},      // num_tuples_in_ht_to_spill
    {kEngine, 98, L, nullptr},      // max_disk_spill_partition_tables
    {kEngine, 99, L, nullptr},      // max_column_width_in_prealloc
    {kEngine, 100, L, nullptr},     // hash_table_max_initial_keys
    {kEngine, 101, L, nullptr},     // max_parallelism_level
    {kEngine, 102, L, nullptr},     // max_update_parallelism_level
    {kEngine, 103, B, nullptr},     // parallel_shared_vhts
    {kEngine, 104, D, nullptr},     // input_card_multiplicator
    {kEngine, 105, B, nullptr},     // insert_crash
    {kEngine, 106, B, nullptr},     // memfail_any
    {kEngine, 107, L, nullptr},     // memfail_any_count
    {kEngine, 108, L, nullptr},     // memfail_any_random_min
    {kEngine, 109, L, "1000"},      // memfail_any_random_max
    {kEngine, 110, B, nullptr},     // memfail_specific
    {kEngine, 111, S, nullptr},     // memfail_specific_name
    {kEngine, 112, L, nullptr},     // memfail_specific_count
    {kEngine, 113, L, nullptr},     // memfail_specific_random_min
    {kEngine, 114, L, nullptr},     // memfail_specific_random_max
    {kEngine, 115, L, nullptr},     // sort_intmemory
    {kEngine, 116, L, nullptr},     // sort_inttuples
    {kEngine, 117, L, nullptr},     // sort_extmemory
    {kEngine, 118, L, nullptr},     // sort_extfanin
    {kEngine, 119, S, "AUTO"},      // sort_compression
    {kEngine, 120, B, nullptr},     // derive_minmax_value_ranges
    {kEngine, 121, B, nullptr},     // derive_selected_value_ranges
    {kEngine, 122, B, nullptr},     // drop_columns_eagerly
    {kClient, 123, S, nullptr},     // format
    {kClient, 124, S, nullptr},     // null
    {kClient, 125, B, "false"},     // timing
    {kClient, 126, B, "false"},     // quiet
    {kClient, 127, D, "0"},         // timeout
};

constexpr bool rows_in_id_order() {
  for (int i = 0; i < static_cast<int>(std::size(kDefaults)); ++i)
    if (kDefaults[i].pid != i + 1) return false;
  return true;
}
static_assert(std::size(kDefaults) == ZNCONFIG_PROPERTY_COUNT - 1);
static_assert(rows_in_id_order());

// A property bound by a DBL rule must be a DBL property, and one bound by an LNG rule an LNG one.
constexpr bool rule_types_match() {
  for (const ZnConfigDefault& row : kDefaults) {
    const uint32_t rule = kRuleMap[row.pid];
    if (rule == 0) continue;
    const uint32_t rule_tpe = rule == 1 || rule == kSecondsRule ? PROP_TPE_DBL : PROP_TPE_LNG;
    if (row.tpe != rule_tpe) return false;
  }
  return true;
}
static_assert(rule_types_match());

}  // namespace

const char* const znconfig_property_names[ZNCONFIG_PROPERTY_COUNT] = {
    nullptr,
    // server
    "profiling", "profile_per_query", "profile_maxsize", "profile_maxfiles", "profile_file", "port",
    "dbfarm_path", "dbname", "dblocation", "query_file", "umask", "allow_remote_connections",
    "password_auth", "socket_retry", "date_format", "century_boundary", "self_inspection",
    // client
    "port", "output_mode", "host", "connection_retries", "passfile",
    // memory
    "use_huge_tlb", "huge_tlb_lim", "bitfilter_cmpshare_threshold", "bitfilter_2bitratio",
    "bitfilter_2bitminsize", "bitfilter_onratio", "bitfilter_offratio", "bitfilter_maxsize",
    "bitfilter_2passthreshold", "bitfilter_samplesize", "bitfilter_bitspertuple",
    "large_allocation_limit", "max_memuse", "max_memory_size", "min_mem_per_transaction",
    "min_trans_mem_inc", "max_overalloc", "vheap_initial_buffer_size", "vheap_max_buffer_size",
    "max_xchg_buffer_size", "max_xchg_buffer_length", "xchg_mem_save_threshold",
    // system
    "num_cores", "core_overalloc", "max_transactions", "vectorsize", "use_sse42", "lazy_eval",
    "map_compute_all", "update_propagation", "max_global_update_memory",
    "max_update_memory_per_transaction", "max_table_update_ratio", "min_propagate_table_count",
    "max_table_snapshot_copy_mem", "combine_hash_deletion_max_cardinality",
    "max_number_propagate_retries", "full_rewrite_on_update_propagation", "full_rewrite_on_combine",
    "max_initial_log_size", "max_old_log_size", "bulk_insert_constraint_checking",
    "interrupt_conflicting_checkpoint",
    // cbm
    "preload_mintuples", "preload_maxcolsize", "io_prefetch_blocks", "pin_all_strings",
    "block_size", "auto_pax_storage", "max_num_columns_per_pax_group",
    "max_sum_column_width_per_pax_group", "max_num_pax_groups", "bufferpool_memuse",
    "bufferpool_size", "pbm_enabled", "columnspace_grow", "group_size",
    "initial_file_metadata_size", "bufferpool_blocks", "queue_depth", "minmax_maxsize",
    "compression_nulls_enabled", "compression_max_compressible_string", "append_reuse_last_block",
    "append_fill_threshold", "append_max_tuples_to_recompress",
    // engine
    "select_datadep_lo", "select_datadep_hi", "hash_table_min_width", "hash_table_min_buckets",
    "hash_table_max_initial_values", "antijoin_return_nothing_on_null",
    "enable_aggregation_disk_spilling", "enable_hashjoin_disk_spilling",
    "num_tuples_in_ht_to_spill", "max_disk_spill_partition_tables", "max_column_width_in_prealloc",
    "hash_table_max_initial_keys", "max_parallelism_level", "max_update_parallelism_level",
    "parallel_shared_vhts", "input_card_multiplicator", "insert_crash", "memfail_any",
    "memfail_any_count", "memfail_any_random_min", "memfail_any_random_max", "memfail_specific",
    "memfail_specific_name", "memfail_specific_count", "memfail_specific_random_min",
    "memfail_specific_random_max", "sort_intmemory", "sort_inttuples", "sort_extmemory",
    "sort_extfanin", "sort_compression", "derive_minmax_value_ranges",
    "derive_selected_value_ranges", "drop_columns_eagerly",
    // client, beyond the classic table
    "format", "null", "timing", "quiet", "timeout"};

const ValidationRule znconfig_rules[ZNCONFIG_RULE_COUNT] = {
    {},                                               // 0: no rule
    dbl_rule(0.0001, 1.0),                            // 1
    lng_rule(32 * M, 256 * T),                        // 2
    lng_rule(1 * M, 1 * G),                           // 3
    lng_rule(1, 256),                                 // 4
    lng_rule(1, 1024),                                // 5
    lng_rule(1, 16 * M),                              // 6
    lng_rule(10 * K, 1 * G),                          // 7
    lng_rule(1 * K, 10 * T),                          // 8
    lng_rule(0, 65535),                               // 9
    lng_rule(0, 1 * K, znconf_validate_power2),       // 10
    lng_rule(4 * K, 64 * M, znconf_validate_power2),  // 11
    lng_rule(1, 128, znconf_validate_power2),         // 12
    lng_rule(0, 256 * T),                             // 13
    lng_rule(64, 256 * T),                            // 14
    lng_rule(4 * K, 16 * M, znconf_validate_power2),  // 15
    lng_rule(4 * K, 32 * M),                          // 16
    lng_rule(1, 32 * M),                              // 17
    lng_rule(1, 256),                                 // 18
    lng_rule(0, 2),                                   // 19
    lng_rule(1, 10 * K),                              // 20
    lng_rule(1 * K, 10 * M),                          // 21
    lng_rule(0, 10 * K),                              // 22
    lng_rule(1, 5 * M),                               // 23
    lng_rule(-1, 256),                                // 24
    lng_rule(0, 256),                                 // 25
    lng_rule(0, 256 * T),                             // 26
    lng_rule(16, 10 * M),                             // 27
    lng_rule(1, 16 * M),                              // 28
    dbl_rule(0.0, 31536000.0),                        // 29: a year of seconds
};

const std::array<uint32_t, ZNCONFIG_PROPERTY_COUNT> znconfig_rule_map = kRuleMap;

const char* const znconfig_group_names[ZNCONFIG_GROUP_COUNT] = {
    nullptr, "default", "server", "client", "system", "cbm", "memory", "engine"};

std::span<const ZnConfigDefault> znconfig_default_rows() { return kDefaults; }

#include "tdigest/pwlb_t_digest_quantile.h"

#include <climits>

int pwlb_t_digest_init(td_histogram_t **p_key, double delta, int K) {
  if (p_key == nullptr) return -1;
  td_free(*p_key);
  *p_key = td_new(delta, K);
  return *p_key == nullptr ? -1 : 0;
}

int pwlb_t_digest_insert(td_histogram_t *p_key, double mean, long count) {
  return td_add(p_key, mean, static_cast<double>(count));
}

int pwlb_t_digest_merge(td_histogram_t *p_key1, td_histogram_t *p_key2) {
  return td_merge(p_key1, p_key2);
}

double pwlb_t_digest_getquantile(td_histogram_t *p_key, double quantile) {
  return td_value_at(p_key, quantile);
}

long pwlb_t_digest_get_data_count(const td_histogram_t *p_key) {
  const double total = td_total_count(p_key);
  // 2^63 as a double; larger weights saturate instead of overflowing.
  if (total >= 9223372036854775808.0) return LONG_MAX;
  return total > 0 ? static_cast<long>(total) : 0;
}

int pwlb_t_digest_get_ncentroids(td_histogram_t *p_key) {
  return td_centroid_count(p_key);
}

unsigned char *pwlb_t_digest_serialize(td_histogram_t *p_key, int mode,
                                       std::vector<unsigned char> *buf, std::size_t *tdgsz) {
  return td_serialize(p_key, mode, buf, tdgsz);
}

int pwlb_t_digest_deserialize(td_histogram_t **p_key, const unsigned char *buf, std::size_t len,
                              int K) {
  if (p_key == nullptr) return -1;
  td_free(*p_key);
  *p_key = td_deserialize(buf, len, K);
  return *p_key == nullptr ? -1 : 0;
}

void pwlb_t_digest_destroy(td_histogram_t **p_key) {
  if (p_key == nullptr) return;
  td_free(*p_key);
  *p_key = nullptr;
}

void pwlb_t_digest_debug(const td_histogram_t *p_key, std::FILE *out) {
  td_debug(p_key, out);
}

int pwlb_t_digest_debug_ex(const td_histogram_t *p_key, char *buf, std::size_t buf_len) {
  return td_debug_dump_output_in_buf(p_key, buf, buf_len);
}

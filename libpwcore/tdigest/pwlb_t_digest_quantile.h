// Handle API over the t-digest: what the monitors call to create, feed, read,
// ship and destroy one percentile sketch per slot. Each call forwards to the
// digest; the handle is the digest pointer itself, null while a slot has no
// data. Like the digest it never logs, locks or throws.

#ifndef PWCORE_TDIGEST_PWLB_T_DIGEST_QUANTILE_H
#define PWCORE_TDIGEST_PWLB_T_DIGEST_QUANTILE_H

#include <cstddef>
#include <cstdio>
#include <vector>

#include "tdigest/tdigest.h"

// Stores a new digest in *p_key, freeing any previous one. 0 on success.
int pwlb_t_digest_init(td_histogram_t **p_key, double delta, int K);
int pwlb_t_digest_insert(td_histogram_t *p_key, double mean, long count);
int pwlb_t_digest_merge(td_histogram_t *p_key1, td_histogram_t *p_key2);
double pwlb_t_digest_getquantile(td_histogram_t *p_key, double quantile);
long pwlb_t_digest_get_data_count(const td_histogram_t *p_key);
int pwlb_t_digest_get_ncentroids(td_histogram_t *p_key);
unsigned char *pwlb_t_digest_serialize(td_histogram_t *p_key, int mode,
                                       std::vector<unsigned char> *buf, std::size_t *tdgsz);
// Stores the decoded digest in *p_key, freeing any previous one; on failure
// *p_key is null. 0 on success.
int pwlb_t_digest_deserialize(td_histogram_t **p_key, const unsigned char *buf, std::size_t len,
                              int K);
// Frees the digest and nulls the handle.
void pwlb_t_digest_destroy(td_histogram_t **p_key);
void pwlb_t_digest_debug(const td_histogram_t *p_key, std::FILE *out);
int pwlb_t_digest_debug_ex(const td_histogram_t *p_key, char *buf, std::size_t buf_len);

#endif  // PWCORE_TDIGEST_PWLB_T_DIGEST_QUANTILE_H

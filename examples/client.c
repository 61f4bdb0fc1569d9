/* Issues a token, asks whether it permits an operation, and revokes it.
 * Usage: client SERVICE GRANTS OPERATION
 * For example: client fastapi '[{"api":"Demo.Item","method":"get"}]'
 *                             '{"api":"Demo.Item","method":"get","runner":"alice"}' */
#include <stdio.h>
#include <zelttoken.h>

int main(int argc, char** argv) {
  if (argc != 4) return 64;

  char token[ZELT_TOKEN_SIZE];
  int error = zelt_issue(argv[1], argv[2], token);
  if (error != ZELT_OK) {
    fprintf(stderr, "client: cannot issue a token: %s\n", zelt_error_text(error));
    return 1;
  }

  bool permitted;
  error = zelt_validate(argv[1], token, argv[3], &permitted);
  puts(error != ZELT_OK ? zelt_error_text(error) : permitted ? "permitted" : "not permitted");

  error = zelt_revoke(argv[1], token);
  if (error != ZELT_OK) {
    fprintf(stderr, "client: cannot revoke the token: %s\n", zelt_error_text(error));
  }
  return permitted ? 0 : 1;
}

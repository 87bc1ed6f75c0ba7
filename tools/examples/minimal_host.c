/* The smallest host: loads the agent core through its public C header and
 * configures it without connecting. Built and run by the test suite so that
 * the header stays usable from C exactly as documented. */
#include <stdio.h>
#include <string.h>

#include "zx_agent.h"

int main(void) {
  agent_init(NULL, 0, NULL, NULL);
  if (tlzxApplication == NULL || tlzxApplication != ZXProxyInstance) {
    fprintf(stderr, "application object not published\n");
    return 1;
  }
  if (strcmp(gPool, "DefaultPool") != 0 || strcmp(gProcessName, "DefaultProcess") != 0) {
    fprintf(stderr, "unexpected defaults: %s %s\n", gPool, gProcessName);
    return 1;
  }
  printf("agent core configured (pool %s, process %s)\n", gPool, gProcessName);
  return 0;
}

/* SPDX-License-Identifier: Apache-2.0 */
/* A stand-in for the device's tools: does nothing and succeeds. Linked
 * statically so that starting it costs only the spawn itself. */
int main(void) { return 0; }

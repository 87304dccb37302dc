/* session_keyring.c - prints the id of the session keyring. Runs in containers: static. */
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

int main(void)
{
    const long session = -3; /* KEY_SPEC_SESSION_KEYRING */
    return printf("%ld\n", syscall(SYS_keyctl, 0 /* KEYCTL_GET_KEYRING_ID */, session, 0)) < 0;
}

/* Multi-part zeroed allocation behind calloc_a(). */
#include <stdarg.h>
#include <stdlib.h>

#include "libubox/utils.h"

#define CALLOC_A_ALIGN sizeof(void *)
#define calloc_a_round(len) (((len) + CALLOC_A_ALIGN - 1) & ~(CALLOC_A_ALIGN - 1))

void *
__calloc_a(size_t len, ...)
{
	va_list ap, ap1;
	size_t total = calloc_a_round(len);
	void **addr;
	char *ptr;
	void *ret;

	va_start(ap, len);
	va_copy(ap1, ap);
	while ((addr = va_arg(ap, void **)) != NULL)
		total += calloc_a_round(va_arg(ap, size_t));
	va_end(ap);

	ret = calloc(1, total);
	if (!ret) {
		va_end(ap1);
		return NULL;
	}

	ptr = (char *)ret + calloc_a_round(len);
	while ((addr = va_arg(ap1, void **)) != NULL) {
		size_t part = va_arg(ap1, size_t);

		*addr = ptr;
		ptr += calloc_a_round(part);
	}
	va_end(ap1);
	return ret;
}

"""The generator on the catalogue exactly as described (no platform fallback), and on broken descriptions."""
import os
import sys
import tempfile
import unittest

GEN_DIR = os.environ.get('VORX_GENERATED_DIR', os.path.join(os.path.dirname(__file__), '..', '..', 'generated'))
sys.path.insert(0, GEN_DIR)
import gen_probes  # noqa: E402

DESC = os.path.join(GEN_DIR, 'functions.desc')


class CatalogueLayout(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.desc, cls.layout = gen_probes.generate(DESC, cls.tmp.name, catalogue_layout=True)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def test_rows_and_groups(self):
        self.assertEqual(len(self.desc.functions), 560)
        self.assertEqual(sum(f.wrapped for f in self.desc.functions), 331)
        self.assertEqual(self.layout.rows, 3391)
        self.assertEqual(len(self.layout.pt_id), 562)
        self.assertEqual(self.layout.pt_id[-1], 3391)
        sizes = [self.layout.pt_id[i + 1] - self.layout.pt_id[i] for i in range(561)]
        self.assertEqual(set(sizes), {1, 2, 4, 7, 10, 13})
        self.assertEqual([i for i, n in enumerate(sizes) if n == 1], [367, 555, 560])

    def test_module_lists(self):
        lists = self.layout.descriptor_lists()
        expected = [('exe', 202), ('libc.so', 111), ('libpthread.so', 78), ('libncurses.so', 3), ('libdl.so', 3),
                    ('libozknotify.so', 50), ('libozknotify_collector.so', 27), ('unknown.unk', 19), ('ld-linux', 0),
                    ('librt.so', 11), ('libaio.so', 5), ('libjemalloc.so', 12),
                    ('libmeskixe_vorxgluf_javaprof_D_1.0.so', 2), ('libmeskixe_vorxgluf_javaprof_1.0.so', 2),
                    ('unknown1.unk', 1), ('unknown2.unk', 1), ('libOpenCL.so', 0), ('libmemkind.so', 11),
                    ('libGLESv2.so', 31), ('libGLESv1.so', 23), ('libGLESv1_CM.so', 23), ('libGLESv3.so', 31),
                    ('libEGL.so', 9), ('libzedacl.so', 0), ('libpmemobj.so', 18)]
        self.assertEqual([(n, len(lists[n])) for n in self.desc.module_names], expected)
        nanosleep = self.desc.by_name['nanosleep']
        self.assertEqual([m.name for m in self.layout.modules[nanosleep.id]], ['libc.so', 'exe', 'libpthread.so'])

    def test_args_sizes(self):
        sizes = {n: self.desc.by_name[n].args_size for n in ('sleep', 'socket', 'open', 'pmap_set', 'getchar')}
        self.assertEqual(sizes, {'sleep': 4, 'socket': 12, 'open': 10, 'pmap_set': 14, 'getchar': 0})

    def test_ids_count_their_whole_size_and_pass_by_value(self):
        sizes = {n: self.desc.by_name[n].args_size for n in (
            '__ozk_task_begin', '__ozk_task_begin_overlapped', '__ozk_task_end_overlapped', '__ozk_frame_submit_v3',
            '__ozk_metadata_add')}
        self.assertEqual(sizes, {'__ozk_task_begin': 56, '__ozk_task_begin_overlapped': 56,
                                 '__ozk_task_end_overlapped': 28, '__ozk_frame_submit_v3': 44,
                                 '__ozk_metadata_add': 44})
        with open(os.path.join(self.tmp.name, 'vorx_probe_params.h')) as f:
            params = f.read()
        self.assertIn('typedef void (*vorx___ozk_task_begin_call_t)(void* __domain, vorx_ozk_id_t __taskid, '
                      'vorx_ozk_id_t __parentid, void* __name);', params)

    def test_outputs_carry_banner_and_guards(self):
        for name in os.listdir(self.tmp.name):
            with open(os.path.join(self.tmp.name, name)) as f:
                text = f.read()
            self.assertIn('generated from functions.desc', text.splitlines()[0], name)
            if name.endswith('.def'):
                self.assertIn('#error', text, name)

    def test_fallback_only_adds_libc_last(self):
        with tempfile.TemporaryDirectory() as tmp:
            _, platform = gen_probes.generate(DESC, tmp, catalogue_layout=False)
        for fn in self.desc.functions:
            catalogued = [m.name for m in self.layout.modules[fn.id]]
            built = [m.name for m in platform.modules[fn.id]]
            moved = fn.wrapped and 'libc.so' not in catalogued and \
                any(n in ('libpthread.so', 'libdl.so', 'librt.so') for n in catalogued)
            self.assertEqual(built, catalogued + ["libc.so"] if moved else catalogued, fn.name)


class BrokenDescriptions(unittest.TestCase):
    HEAD = '@type int 4 int\n@module exe\n'

    def generate(self, body):
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, 'f.desc')
            with open(path, 'w') as f:
                f.write(self.HEAD + body)
            gen_probes.generate(path, os.path.join(tmp, 'out'))

    def assertFails(self, body, text):
        with self.assertRaises(gen_probes.DescError) as cm:
            self.generate(body)
        self.assertIn(text, str(cm.exception))

    def test_gap_in_ids_names_the_line(self):
        self.assertFails('0 a event exe - : int (void)\n2 b event exe - : int (void)\n', 'f.desc:4: id 2 out of order')

    def test_unknown_type(self):
        self.assertFails('0 a event exe - : int (blob x)\n', 'type "blob" has no @type line')

    def test_unknown_kind(self):
        self.assertFails('0 a waits exe - : int (void)\n', 'unknown kind "waits"')

    def test_module_without_descriptor(self):
        self.assertFails('0 a event libq.so - : int (void)\n', 'module libq.so of a has no @module line')

    def test_duplicate_name(self):
        self.assertFails('0 a event exe - : int (void)\n1 a event exe - : int (void)\n', 'name a already has id 0')

    def test_heap_expression_names_a_parameter(self):
        self.assertFails('0 a heap exe - hsize={len} : int (int size)\n', 'a has no parameter len')


if __name__ == '__main__':
    unittest.main()

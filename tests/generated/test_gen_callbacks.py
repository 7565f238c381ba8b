"""The callback generator on the real description, and on an id declared as a pointer."""
import os
import sys
import tempfile
import unittest

GEN_DIR = os.environ.get('VORX_GENERATED_DIR', os.path.join(os.path.dirname(__file__), '..', '..', 'generated'))
sys.path.insert(0, GEN_DIR)
import gen_callbacks  # noqa: E402

DESC = os.path.join(GEN_DIR, 'functions.desc')


def callback(text, name):
    start = text.index('extern "C" void %s(' % name)
    return text[start:text.index('\n}\n', start)]


class AnnotationIds(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.text = gen_callbacks.generate(gen_callbacks.read_description(DESC))

    def test_task_ids_are_read_from_the_value_the_wrapper_took(self):
        body = callback(self.text, 'vorx_tp___ozk_task_begin_pre_cbk')
        self.assertIn('p.__taskid.words[0]', body)
        self.assertIn('p.__taskid.words[1]', body)
        self.assertIn('VORX_ASSERT(n == 29u)', body)  # version, domain, count, two words, name
        body = callback(self.text, 'vorx_tp___ozk_task_begin_overlapped_pre_cbk')
        self.assertIn('p.__parentid.words[1]', body)

    def test_submitted_frames_carry_all_three_words(self):
        body = callback(self.text, 'vorx_tp___ozk_frame_submit_v3_pre_cbk')
        self.assertIn('p.__id.words[2]', body)
        self.assertIn('VORX_ASSERT(n == 53u)', body)

    def test_id_declared_as_a_pointer_is_refused(self):
        line = ('0 __ozk_task_end_overlapped event unknown.unk tasks : '
                'void (const void* domain, const void* taskid)\n')
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, 'f.desc')
            with open(path, 'w') as f:
                f.write(line)
            with self.assertRaises(gen_callbacks.DescError) as cm:
                gen_callbacks.generate(gen_callbacks.read_description(path))
        self.assertIn('__ozk_task_end_overlapped: ids:{taskid} needs an ozk_id parameter passed by value', str(cm.exception))


if __name__ == '__main__':
    unittest.main()
